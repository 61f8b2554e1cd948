// k52ctl: talks to a running k52app from a terminal.
#include "client/connection.h"
#include "client/containers.h"
#include "client/descriptor.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace {

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port = 4460;
    std::string containerDir = "/tmp/k52app-emulated/";
    std::vector<std::string> words;
};

void usage()
{
    std::cerr << "Usage: k52ctl [--host HOST] [--port PORT] ROUTE [ARGS...]\n"
                 "       k52ctl [--host HOST] [--port PORT] watch\n"
                 "       k52ctl [--dir DIR/] containers\n"
                 "       k52ctl [--host HOST] [--port PORT] xml [FILE]\n"
                 "\n"
                 "  ROUTE [ARGS...]  send one command, print its acknowledgement; exit 0 for OK\n"
                 "  watch            print every notice the daemon sends until Ctrl-C\n"
                 "  containers       verify the two container files in DIR (framing and CRC)\n"
                 "  help [ROUTE]     the daemon's list of routes, or one route's arguments\n"
                 "  xml [FILE]       fetch the XML descriptor, verify it and save the document\n"
                 "                   (default FILE: k52-descriptor.xml)\n"
                 "\n"
                 "Defaults: --host 127.0.0.1 --port 4460 --dir /tmp/k52app-emulated/\n";
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
        return sendCommand(options);
    } catch (const std::exception& e) {
        std::cerr << "k52ctl: " << e.what() << std::endl;
        return 1;
    }
}
