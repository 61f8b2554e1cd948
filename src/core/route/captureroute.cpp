#include "core/route/families.h"

#include "core/middleware/ackreport.h"
#include "core/middleware/capture.h"
#include "utils/base/exceptions.h"
#include "utils/base/strings.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace k52app {

namespace {

// The fixed place where the board installation puts the image kernels.
constexpr const char* kernelFile = "/opt/corvane/k52app/etc/opencl/image_processing.cl";

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

std::string benchmarkNotice(float framesPerSecond)
{
    char rate[64];
    std::snprintf(rate, sizeof rate, "%f", framesPerSecond);
    return std::string("Benchmark = '") + rate + "' FPS";
}

// The capture routes convert only the library's runtime errors; the stream's other failures
// (a refused second stream, a vanished client, a bad argument) go to the worker's report.
Route captureRoute(std::string name, std::string help, std::vector<utils::SpinnerArgumentMetaData> arguments,
              std::string prefix, Converts converts, std::function<RouteReply(RouteCall&)> body)
{
    return {std::move(name), std::move(help), std::move(arguments), {}, std::move(prefix), "Error",
            converts, {}, std::move(body)};
}

// A Set route for an on/off setting: non-zero sets it; the reply names the new state.
std::function<RouteReply(RouteCall&)> flagSetter(std::function<void(bool)> set)
{
    return [set = std::move(set)](RouteCall& call) {
        const bool on = call.i32(0) != 0;
        set(on);
        return call.ok(stateWord(on));
    };
}

std::function<RouteReply(RouteCall&)> flagGetter(std::function<bool()> get)
{
    return [get = std::move(get)](RouteCall& call) { return call.ok(stateWord(get())); };
}

} // namespace

std::vector<Route> captureRoutes(const RouteServices& services)
{
    Capture& capture = services.capture;
    AckReport& ackReport = services.ackReport;

    auto streamStart = [&capture, &ackReport](RouteCall& call) {
        const uint32_t fourcc = fourccCode(call.text(0));
        const auto resolutionIndex = call.u32(1);
        // Blocks for the whole stream; the rate goes to the control client meanwhile.
        capture.streamStart(fourcc, resolutionIndex, [&ackReport](float framesPerSecond) {
            ackReport.sendColoredMessage(AckReport::Blue, benchmarkNotice(framesPerSecond));
        });
        return call.ok("Capture Stream finished.");
    };
    auto acceleratedProcessing = [&capture](RouteCall& call) {
        const int mode = call.i32(0);
        if (mode == 0) {
            capture.disableAcceleratorProccessing();
            return call.ok("Accelerator disabled.");
        }
        const char* kernel = mode == 1 ? "processImage" : "sobelFilter";
        const int32_t p1 = call.i32(1);
        const int32_t p2 = call.i32(2);
        const int32_t p3 = call.i32(3);
        const int32_t p4 = call.i32(4);
        capture.enableAcceleratorProccessing(kernelFile, kernel, p1, p2, p3, p4);
        return call.ok("Accelerator enabled.");
    };
    auto benchmarkPeriod = [&capture](RouteCall& call) {
        const int32_t period = call.i32(0);
        capture.setBenchmarkPeriod(period);
        return call.ok(std::to_string(period) + " msec");
    };
    const auto mode = utils::numericalArgument("mode", "The captured frame paddings(0-disable 1-enable).");
    const auto none = Converts::nothing;
    const auto runtime = Converts::runtimeErrors;

    return {
        captureRoute("CaptureStreamStart", "Starts the capture pipeline and streams the frames",
                {{"fourcc", "The FourCC code of the camera to stream.", utils::SpinnerArgumentType::categorical,
                  std::vector<std::string>{"RGB3", "GREY"}, isStreamableFourcc, "", 1},
                 utils::numericalArgument("resolution_index", "The index of the resolution to stream.")},
                "CaptureStart: ", runtime, streamStart),
        captureRoute("CaptureStreamStop", "Stops the frame stream", {}, "CaptureStreamStop: ", none,
                [&capture](RouteCall& call) {
                    capture.streamStop();
                    return call.ok("CaptureStreamStop stopped.");
                }),
        captureRoute("CaptureAcceleratedProcessing", "Enables the accelerated Processing with GPU.",
                {utils::numericalArgument("mode", "0-disable, 1-enable"),
                 utils::numericalArgument("bounds",
                                          "Nummerical 4 posetive integers which define the crop bounds left, "
                                          "top, width, height respectively.",
                                          "", -1)},
                "CaptureEnableAcceleratedProcessing: ", runtime, acceleratedProcessing),
        captureRoute("SetCapturePaddingMode", "Sets the frame capture paddings on streaming frame", {mode},
                "SetCapturePaddingMode: ", runtime, flagSetter([&capture](bool on) { capture.setPaddingMode(on); })),
        captureRoute("GetCapturePaddingMode", "Checks if the paddings of the frame is streamed", {},
                "GetCapturePaddingMode: ", none, flagGetter([&capture] { return capture.paddingMode(); })),
        captureRoute("SetCaptureBenchmarkPeriod", "Sets the period for the capture benchmark",
                {utils::numericalArgument("period", "The period for benchmarking(in milliseconds).", "1000")},
                "SetCaptureBenchmarkPeriod: ", runtime, benchmarkPeriod),
        captureRoute("SetCaptureStreamOverWire", "Sets the frame capture pipline to stream the frame over the wire",
                {utils::numericalArgument("mode", "The wire stream(0-disable 1-enable).")},
                "SetCaptureStreamOverWire: ", runtime,
                flagSetter([&capture](bool on) { capture.setStreamOverWire(on); })),
        // Answers with the padding route's prefix: clients match on it.
        captureRoute("GetCaptureStreamOverWire", "Checks if the frame is streamed over wire", {},
                "GetCapturePaddingMode: ", none, flagGetter([&capture] { return capture.streamOverWire(); })),
    };
}

} // namespace k52app
