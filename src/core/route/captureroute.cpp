#include "core/commandrouter.h"

#include "core/middleware/ackreport.h"
#include "core/middleware/capture.h"
#include "utils/base/exceptions.h"
#include "utils/base/strings.h"

#include <cstdio>
#include <string>
#include <vector>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;

// The fixed place where the board installation puts the image kernels.
constexpr const char* kernelFile = "/opt/corvane/k52app/etc/opencl/image_processing.cl";

utils::SpinnerArgumentMetaData numericArgument(std::string name, std::string description,
                                               std::string defaultValue = "", int64_t count = 1)
{
    return {std::move(name), std::move(description), utils::SpinnerArgumentType::numerical,
            std::monostate{}, utils::isNumericalString, std::move(defaultValue), count};
}

bool isStreamableFourcc(const std::string& text) { return text == "RGB3" || text == "GREY"; }

// The V4L2 code of a fourcc text: its first four bytes, little-endian.
uint32_t fourccCode(const std::string& text)
{
    uint32_t code = 0;
    for (size_t i = 0; i < 4 && i < text.size(); ++i)
        code |= uint32_t(static_cast<unsigned char>(text[i])) << (8 * i);
    return code;
}

const char* stateWord(bool on) { return on ? "enable" : "disable"; }

// The capture routes convert only the library's runtime errors; the stream's other failures
// (a refused second stream, a vanished client, a bad argument) go to the worker's report.
RouteReply convertRuntimeErrors(const RouteReplyBuilder& reply,
                                const std::function<RouteReply()>& body)
{
    try {
        return body();
    } catch (const utils::UtilsRuntimeError& e) {
        return reply.answer(reply.status() + "RuntimeError", e.what());
    }
}

// A Set route for an on/off setting: non-zero sets it; the reply names the new state.
RouteHandler flagSetter(std::string prefix, std::function<void(bool)> set)
{
    return [reply = RouteReplyBuilder("Error", std::move(prefix)),
            set = std::move(set)](const Arguments& arguments) {
        return convertRuntimeErrors(reply, [&] {
            const bool on = std::stoi(arguments.at(0)) != 0;
            set(on);
            return reply.ok(stateWord(on));
        });
    };
}

RouteHandler flagGetter(std::string prefix, std::function<bool()> get)
{
    return [reply = RouteReplyBuilder("Error", std::move(prefix)),
            get = std::move(get)](const Arguments&) { return reply.ok(stateWord(get())); };
}

std::string benchmarkNotice(float framesPerSecond)
{
    char rate[64];
    std::snprintf(rate, sizeof rate, "%f", framesPerSecond);
    return std::string("Benchmark = '") + rate + "' FPS";
}

} // namespace

void K52CommandRouter::registerCaptureCommands()
{
    Capture& capture = capture_;
    AckReport& ackReport = ackReport_;
    const utils::SpinnerArgumentMetaData mode = numericArgument(
        "mode", "The captured frame paddings(0-disable 1-enable).");

    const RouteHandler streamStart = [&capture, &ackReport,
                                      reply = RouteReplyBuilder("Error", "CaptureStart: ")](
                                         const Arguments& arguments) {
        return convertRuntimeErrors(reply, [&] {
            const uint32_t fourcc = fourccCode(arguments.at(0));
            const auto resolutionIndex = static_cast<uint32_t>(std::stoi(arguments.at(1)));
            // Blocks for the whole stream; the rate goes to the control client meanwhile.
            capture.streamStart(fourcc, resolutionIndex, [&ackReport](float framesPerSecond) {
                ackReport.sendColoredMessage(AckReport::Blue, benchmarkNotice(framesPerSecond));
            });
            return reply.ok("Capture Stream finished.");
        });
    };

    const RouteHandler streamStop = [&capture, reply = RouteReplyBuilder("Error", "CaptureStreamStop: ")](
                                        const Arguments&) {
        capture.streamStop();
        return reply.ok("CaptureStreamStop stopped.");
    };

    const RouteHandler acceleratedProcessing =
        [&capture, reply = RouteReplyBuilder("Error", "CaptureEnableAcceleratedProcessing: ")](
            const Arguments& arguments) {
            return convertRuntimeErrors(reply, [&] {
                const int mode = std::stoi(arguments.at(0));
                if (mode == 0) {
                    capture.disableAcceleratorProccessing();
                    return reply.ok("Accelerator disabled.");
                }
                const char* kernel = mode == 1 ? "processImage" : "sobelFilter";
                const int32_t p1 = std::stoi(arguments.at(1));
                const int32_t p2 = std::stoi(arguments.at(2));
                const int32_t p3 = std::stoi(arguments.at(3));
                const int32_t p4 = std::stoi(arguments.at(4));
                capture.enableAcceleratorProccessing(kernelFile, kernel, p1, p2, p3, p4);
                return reply.ok("Accelerator enabled.");
            });
        };

    const RouteHandler benchmarkPeriod =
        [&capture, reply = RouteReplyBuilder("Error", "SetCaptureBenchmarkPeriod: ")](
            const Arguments& arguments) {
            return convertRuntimeErrors(reply, [&] {
                const int32_t period = std::stoi(arguments.at(0));
                capture.setBenchmarkPeriod(period);
                return reply.ok(std::to_string(period) + " msec");
            });
        };

    registerRoutes({
        {"CaptureStreamStart", "Starts the capture pipeline and streams the frames",
         {{{"fourcc", "The FourCC code of the camera to stream.",
            utils::SpinnerArgumentType::categorical, std::vector<std::string>{"RGB3", "GREY"},
            isStreamableFourcc, "", 1},
           numericArgument("resolution_index", "The index of the resolution to stream.")}},
         streamStart},
        {"CaptureStreamStop", "Stops the frame stream", {}, streamStop},
        {"CaptureAcceleratedProcessing", "Enables the accelerated Processing with GPU.",
         {{numericArgument("mode", "0-disable, 1-enable"),
           numericArgument("bounds",
                           "Nummerical 4 posetive integers which define the crop bounds left, "
                           "top, width, height respectively.",
                           "", -1)}},
         acceleratedProcessing},
        {"SetCapturePaddingMode", "Sets the frame capture paddings on streaming frame", {{mode}},
         flagSetter("SetCapturePaddingMode: ", [&capture](bool on) { capture.setPaddingMode(on); })},
        {"GetCapturePaddingMode", "Checks if the paddings of the frame is streamed", {},
         flagGetter("GetCapturePaddingMode: ", [&capture] { return capture.paddingMode(); })},
        {"SetCaptureBenchmarkPeriod", "Sets the period for the capture benchmark",
         {{numericArgument("period", "The period for benchmarking(in milliseconds).", "1000")}},
         benchmarkPeriod},
        {"SetCaptureStreamOverWire", "Sets the frame capture pipline to stream the frame over the wire",
         {{numericArgument("mode", "The wire stream(0-disable 1-enable).")}},
         flagSetter("SetCaptureStreamOverWire: ",
                    [&capture](bool on) { capture.setStreamOverWire(on); })},
        // Answers with the padding route's prefix: clients match on it.
        {"GetCaptureStreamOverWire", "Checks if the frame is streamed over wire", {},
         flagGetter("GetCapturePaddingMode: ", [&capture] { return capture.streamOverWire(); })},
    });
}

} // namespace k52app
