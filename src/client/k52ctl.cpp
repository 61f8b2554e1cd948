// k52ctl: talks to a running k52app from a terminal.
#include "client/connection.h"
#include "client/containers.h"
#include "client/descriptor.h"
#include "client/framestream.h"
#include "utils/io/imageserializer.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port = 4460;
    uint16_t streamPort = 4461;
    std::string containerDir = "/tmp/k52app-emulated/";
    std::vector<std::string> words;
};

void usage()
{
    std::cerr << "Usage: k52ctl [--host HOST] [--port PORT] ROUTE [ARGS...]\n"
                 "       k52ctl [--host HOST] [--port PORT] watch\n"
                 "       k52ctl [--dir DIR/] containers\n"
                 "       k52ctl [--host HOST] [--port PORT] xml [FILE]\n"
                 "       k52ctl [--host HOST] [--port PORT] [--stream-port PORT] static NAME [FILE]\n"
                 "       k52ctl [--host HOST] [--port PORT] [--stream-port PORT] stream FOURCC INDEX\n"
                 "              [--save-every N] [--save N] [--frames N] [--out DIR]\n"
                 "\n"
                 "  ROUTE [ARGS...]  send one command, print its acknowledgement; exit 0 for OK\n"
                 "  watch            print every notice the daemon sends until Ctrl-C\n"
                 "  containers       verify the two container files in DIR (framing and CRC)\n"
                 "  help [ROUTE]     the daemon's list of routes, or one route's arguments\n"
                 "  xml [FILE]       fetch the XML descriptor, verify it and save the document\n"
                 "                   (default FILE: k52-descriptor.xml)\n"
                 "  static NAME      fetch static frame NAME on the stream socket, verify it and save\n"
                 "                   it as PGM (grey) or PPM (RGB); default FILE: static-NAME.pgm/.ppm\n"
                 "  stream FOURCC INDEX\n"
                 "                   stream frames (FOURCC GREY or RGB3, INDEX of the resolution),\n"
                 "                   verify each, print frames per second and MB/s every second;\n"
                 "                   Ctrl-C stops the stream. --save-every N saves every Nth frame,\n"
                 "                   --save N the first N frames, as frame-NNNNNN.pgm/.ppm in --out\n"
                 "                   DIR (default .); --frames N stops after N frames\n"
                 "\n"
                 "Defaults: --host 127.0.0.1 --port 4460 --stream-port 4461 --dir /tmp/k52app-emulated/\n";
}

bool parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc)
                throw std::runtime_error(arg + " needs a value");
            return argv[++i];
        };
        if (options.words.empty() && (arg == "--host" || arg == "-H"))
            options.host = value();
        else if (options.words.empty() && (arg == "--port" || arg == "-p"))
            options.port = static_cast<uint16_t>(std::stoul(value()));
        else if (options.words.empty() && arg == "--stream-port")
            options.streamPort = static_cast<uint16_t>(std::stoul(value()));
        else if (options.words.empty() && arg == "--dir")
            options.containerDir = value();
        else if (options.words.empty() && (arg == "--help" || arg == "-h"))
            return false;
        else
            options.words.push_back(arg);
    }
    return !options.words.empty();
}

// Colours the way the daemon meant them, when a person is watching.
std::string paint(uint32_t color, const std::string& text)
{
    if (!::isatty(STDOUT_FILENO))
        return text;
    char escape[32];
    std::snprintf(escape, sizeof escape, "\033[38;2;%u;%u;%um", (color >> 16) & 0xFF,
                  (color >> 8) & 0xFF, color & 0xFF);
    return escape + text + "\033[0m";
}

void printNotice(const k52client::Notice& notice)
{
    std::cout << "[" << notice.time << "] " << paint(notice.color, notice.message) << std::endl;
}

int sendCommand(const Options& options)
{
    std::string command;
    for (const auto& word : options.words)
        command += (command.empty() ? "" : " ") + word;
    k52client::ControlClient client(options.host, options.port);
    auto ack = client.command(command);
    for (const auto& notice : client.unsolicited())
        printNotice(notice);
    std::cout << paint(ack.color, ack.status()) << " " << ack.reply() << std::endl;
    return ack.status() == "OK" ? 0 : 2;
}

volatile std::sig_atomic_t interrupted = 0;

int watch(const Options& options)
{
    std::signal(SIGINT, [](int) { interrupted = 1; });
    k52client::ControlClient client(options.host, options.port);
    std::cerr << "watching " << options.host << ":" << options.port << " (Ctrl-C to stop)"
              << std::endl;
    while (!interrupted) {
        try {
            printNotice(client.readNotice(k52client::Milliseconds(250)));
        } catch (const std::runtime_error& e) {
            if (std::string(e.what()).find("timed out") == std::string::npos)
                throw;
        }
    }
    return 0;
}

int xmlDescriptor(const Options& options)
{
    const std::string path = options.words.size() > 1 ? options.words[1] : "k52-descriptor.xml";
    k52client::ControlClient client(options.host, options.port);
    auto [descriptor, ack] = k52client::fetchXmlDescriptor(client);
    for (const auto& notice : client.unsolicited())
        printNotice(notice);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << descriptor.document << '\n';
    if (!file.flush())
        throw std::runtime_error("cannot write " + path);
    std::printf("%s: %zu bytes of XML (message %u of 229376 bytes used, crc 0x%08x ok)\n", path.c_str(),
                descriptor.document.size(), descriptor.usedLength, descriptor.checksum);
    std::cout << paint(ack.color, ack.status()) << " " << ack.reply() << std::endl;
    return 0;
}

// A received frame as an image file a person can open: grey as PGM, RGB as PPM.
struct FrameImage {
    utils::ImageSerializer::ImageData image;
    const char* extension;
};

FrameImage frameImage(const k52client::Frame& frame)
{
    FrameImage result;
    result.image.width = frame.width;
    result.image.height = frame.height;
    switch (frame.pixelFormat) {
    case 1:
        result.image.channels = 1;
        result.extension = ".pgm";
        break;
    case 7:
        result.image.channels = 3;
        result.extension = ".ppm";
        break;
    default:
        throw std::runtime_error(std::string("frames in ") + utils::wire::pixelFormatName(frame.pixelFormat) +
                                 " cannot be saved as an image (only GREY and RGB3)");
    }
    if (result.image.bytesPerLine() * frame.height != frame.size)
        throw std::runtime_error("frame of " + std::to_string(frame.size) + " bytes is not " +
                                 std::to_string(frame.width) + "x" + std::to_string(frame.height) + " " +
                                 utils::wire::pixelFormatName(frame.pixelFormat));
    result.image.pixels.assign(frame.data, frame.data + frame.size);
    return result;
}

std::string describe(const k52client::Frame& frame)
{
    return std::string(utils::wire::pixelFormatName(frame.pixelFormat)) + " " + std::to_string(frame.width) + "x" +
           std::to_string(frame.height);
}

// The daemon accepts a stream client on its own schedule (within about 200 ms) and tells no
// one; a frame sent before that has nowhere to go.
k52client::FrameStream connectStream(const Options& options)
{
    k52client::FrameStream stream(options.host, options.streamPort);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return stream;
}

int staticFrame(const Options& options)
{
    if (options.words.size() < 2)
        throw std::runtime_error("static needs the name of a static frame");
    const std::string& name = options.words[1];
    // The stream socket first: the frame goes out as soon as the command runs.
    k52client::FrameStream stream = connectStream(options);
    k52client::ControlClient client(options.host, options.port);
    auto ack = client.command("GetStaticFrame " + name);
    for (const auto& notice : client.unsolicited())
        printNotice(notice);
    std::cout << paint(ack.color, ack.status()) << " " << ack.reply() << std::endl;
    if (ack.status() != "OK")
        return 2;
    const k52client::Frame& frame = stream.next(k52client::Milliseconds(5000));
    auto [image, extension] = frameImage(frame);
    const std::string path = options.words.size() > 2 ? options.words[2]
                                                      : "static-" + name.substr(0, name.rfind('.')) + extension;
    utils::ImageSerializer::write(path, image);
    std::printf("%s: %s, %zu bytes, crc 0x%08x ok\n", path.c_str(), describe(frame).c_str(), frame.size,
                frame.crc);
    return 0;
}

// What `stream` does besides receiving: which frames to save, when to stop.
struct StreamPlan {
    std::string fourcc;
    std::string resolutionIndex;
    uint64_t saveEvery = 0;
    uint64_t saveFirst = 0;
    uint64_t stopAfter = 0; // 0: until Ctrl-C
    std::string directory = ".";

    bool saves(uint64_t index) const
    {
        return index < saveFirst || (saveEvery != 0 && index % saveEvery == 0);
    }
};

StreamPlan streamPlan(const std::vector<std::string>& words)
{
    StreamPlan plan;
    std::vector<std::string> positional;
    for (size_t i = 1; i < words.size(); ++i) {
        auto number = [&]() -> uint64_t {
            if (i + 1 >= words.size())
                throw std::runtime_error(words[i] + " needs a value");
            return std::stoull(words[++i]);
        };
        if (words[i] == "--save-every")
            plan.saveEvery = number();
        else if (words[i] == "--save")
            plan.saveFirst = number();
        else if (words[i] == "--frames")
            plan.stopAfter = number();
        else if (words[i] == "--out" && i + 1 < words.size())
            plan.directory = words[++i];
        else
            positional.push_back(words[i]);
    }
    if (positional.size() != 2)
        throw std::runtime_error("stream needs FOURCC and INDEX, for example: stream GREY 1");
    plan.fourcc = positional[0];
    plan.resolutionIndex = positional[1];
    return plan;
}

// Frames and bytes since the last report, printed once a second.
class StreamMeter {
public:
    using Clock = std::chrono::steady_clock;

    void add(const k52client::Frame& frame)
    {
        ++frames_;
        ++total_;
        bytes_ += static_cast<double>(frame.messageSize);
        const auto now = Clock::now();
        const std::chrono::duration<double> elapsed = now - since_;
        if (elapsed.count() >= 1.0) {
            std::printf("%8llu frames  %7.2f fps  %8.2f MB/s  %s\n", static_cast<unsigned long long>(total_),
                        static_cast<double>(frames_) / elapsed.count(), bytes_ / elapsed.count() / 1e6,
                        describe(frame).c_str());
            std::fflush(stdout);
            since_ = now;
            frames_ = 0;
            bytes_ = 0;
        }
    }
    uint64_t total() const { return total_; }

private:
    Clock::time_point since_ = Clock::now();
    uint64_t frames_ = 0;
    uint64_t total_ = 0;
    double bytes_ = 0;
};

const k52client::Milliseconds streamPatience(5000);

// Receives one frame, counts it and saves it when the plan asks for it.
void receiveFrame(k52client::FrameStream& stream, const StreamPlan& plan, StreamMeter& meter)
{
    const k52client::Frame& frame = stream.next(streamPatience);
    const uint64_t index = meter.total();
    meter.add(frame);
    if (!plan.saves(index))
        return;
    auto [image, extension] = frameImage(frame);
    char name[32];
    std::snprintf(name, sizeof name, "/frame-%06llu", static_cast<unsigned long long>(index));
    utils::ImageSerializer::write(plan.directory + name + extension, image);
}

// Prints the next notice; the stream's own answer comes when its loop has ended, for good or
// not, and gives the exit status.
std::optional<int> readStreamNotice(k52client::ControlClient& client)
{
    const k52client::Notice notice = client.readNotice(streamPatience);
    printNotice(notice);
    if (notice.isAcknowledgement() && notice.reply().rfind("CaptureStreamStop: ", 0) != 0)
        return notice.status() == "OK" ? 0 : 2;
    return std::nullopt;
}

// Leaving the control socket ends the stream. The stream socket is left only once the daemon
// has stopped sending: closing it mid-frame ends the stream in an error that the next control
// client is told about.
void leaveStream(std::optional<k52client::ControlClient>& client, k52client::FrameStream& stream,
                 const StreamPlan& plan, StreamMeter& meter)
{
    client.reset();
    for (pollfd p{stream.connection().descriptor(), POLLIN, 0}; ::poll(&p, 1, 500) == 1;)
        receiveFrame(stream, plan, meter);
    std::cerr << "stream stopped by leaving the control socket" << std::endl;
}

int streamFrames(const Options& options)
{
    const StreamPlan plan = streamPlan(options.words);
    std::signal(SIGINT, [](int) { interrupted = 1; });
    k52client::FrameStream stream = connectStream(options);
    std::optional<k52client::ControlClient> client(std::in_place, options.host, options.port);
    client->send("CaptureStreamStart " + plan.fourcc + " " + plan.resolutionIndex);
    std::cerr << "streaming " << plan.fourcc << " at resolution index " << plan.resolutionIndex
              << " (Ctrl-C to stop)" << std::endl;

    // How long a stop request may take: with one worker in the daemon the stream holds it, so
    // the stop waits in the queue and only leaving the control socket ends the stream.
    const auto stopGrace = std::chrono::seconds(1);
    StreamMeter meter;
    std::optional<StreamMeter::Clock::time_point> stopSent;
    int status = 0;
    for (;;) {
        if ((interrupted || (plan.stopAfter && meter.total() >= plan.stopAfter)) && !stopSent) {
            client->send("CaptureStreamStop");
            stopSent = StreamMeter::Clock::now();
        }
        if (stopSent && StreamMeter::Clock::now() - *stopSent > stopGrace) {
            leaveStream(client, stream, plan, meter);
            break;
        }
        pollfd ready[2] = {{stream.connection().descriptor(), POLLIN, 0},
                           {client->connection().descriptor(), POLLIN, 0}};
        if (::poll(ready, 2, 100) <= 0)
            continue; // a timeout, or Ctrl-C (EINTR)
        // Frames keep coming until the daemon has seen the stop; reading them keeps its sends
        // from stalling.
        if (ready[0].revents)
            receiveFrame(stream, plan, meter);
        if (ready[1].revents) {
            if (const auto ended = readStreamNotice(*client)) {
                status = *ended;
                break;
            }
        }
    }
    std::printf("%llu frames received and verified\n", static_cast<unsigned long long>(meter.total()));
    return status;
}

int containers(const Options& options)
{
    int status = 0;
    for (const char* name : {k52client::xmlContainerName, k52client::generalContainerName}) {
        auto report = k52client::inspectContainer(options.containerDir + name);
        std::printf("%s: %llu bytes, id 0x%08x, size %u, crc 0x%08x (%s)\n", report.path.c_str(),
                    static_cast<unsigned long long>(report.fileSize), report.identifier,
                    report.size, report.storedChecksum, report.ok() ? "ok" : "BAD");
        for (const auto& sub : report.subContainers)
            std::printf("  +%-9llu id 0x%08x size %u\n",
                        static_cast<unsigned long long>(sub.offset), sub.identifier, sub.size);
        for (const auto& problem : report.problems)
            std::printf("  problem: %s\n", problem.c_str());
        if (!report.ok())
            status = 2;
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        if (!parse(argc, argv, options)) {
            usage();
            return 1;
        }
        const std::string& verb = options.words.front();
        if (verb == "watch")
            return watch(options);
        if (verb == "containers")
            return containers(options);
        if (verb == "xml")
            return xmlDescriptor(options);
        if (verb == "static")
            return staticFrame(options);
        if (verb == "stream")
            return streamFrames(options);
        return sendCommand(options);
    } catch (const std::exception& e) {
        std::cerr << "k52ctl: " << e.what() << std::endl;
        return 1;
    }
}
