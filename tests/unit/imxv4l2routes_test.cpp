#include "support/routerharness.h"
#include "utils/platform/emulated/registermodel.h"
#include "utils/platform/kernel.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <fcntl.h>
#include <stdexcept>
#include <tuple>

namespace {

using k52test::expectExchanges;
using utils::platform::emulated::Fault;

constexpr const char* imxPath = "/dev/imx0";
constexpr const char* videoPath = "/dev/video0";

// A sensor whose registers all read a chosen value.
struct TypedSensor : utils::platform::emulated::RegisterModel {
    TypedSensor(utils::platform::emulated::FaultInjector& faults, uint32_t type) : RegisterModel(imxPath, faults), type(type) {}
    int readRegister(uint32_t, uint32_t& value) override { value = type; return 0; }
    int writeRegister(uint32_t, uint32_t) override { return EPERM; }
    uint32_t type;
};

TEST(IMXRoutes, RepliesRefusalsAndDeviceErrors)
{
    k52test::RouterHarness h;
    expectExchanges(h, {
        {"SetIMXExposure 5000", "OK", "SetIMXExposure: Exposure set to 5000 us"},
        {"GetIMXExposure", "OK", "GetIMXExposure: Exposure = 5000 us"},
        // One byte reaches the sensor: 257 arrives as 1.
        {"SetIMXTriggerMode 257", "OK", "SetIMXTriggerMode: Trigger Mode set to 1"},
        {"GetIMXTriggerMode", "OK", "GetIMXTriggerMode: Trigger Mode = 1"},
        {"SetIMXHalfScanMode 1", "OK", "SetIMXHalfScanMode: hscanmode=1;"},
        {"GetIMXHalfScanMode", "OK", "GetIMXHalfScanMode: Half-Scan Mode = 1"},
        // The reply text is built before the sensor is asked, so a refusal keeps it.
        {"SetIMXHalfScanMode 2", "ErrorIOException",
         "SetIMXHalfScanMode: hscanmode=2;Unable to write register HSCAN_MODE of '/dev/imx0': Invalid argument"},
        // The sensor refuses offsets outside its 1456x1088 pixels; a refusal changes nothing.
        {"SetIMXROIOffset 16 32", "OK", "SetIMXROIOffset: ROI Offset set to (16,32)"},
        {"SetIMXROIOffset 1456 0", "ErrorIOException",
         "SetIMXROIOffset: Unable to write register ROI_OFFSET of '/dev/imx0': Invalid argument"},
        {"GetIMXROIOffset", "OK", "GetIMXROIOffset: ROI Offset = (16,32)"},
    });
    // Missing values are answered before the sensor is touched, so even a dead sensor gives the note.
    h.board().faults().inject(imxPath, Fault::ioError);
    expectExchanges(h, {
        {"SetIMXExposure", "Error", "SetIMXExposure: No exposure value provided."},
        {"SetIMXTriggerMode", "Error", "SetIMXTriggerMode: No trigger mode value provided."},
        {"SetIMXHalfScanMode", "Error", "SetIMXHalfScanMode: No half-scan mode value provided."},
        {"SetIMXROIOffset 5", "Error", "SetIMXROIOffset: No ROI x,y offset values provided."},
        {"GetIMXTriggerMode", "ErrorIOException",
         "GetIMXTriggerMode: Unable to read register TRIGGER_MODE of '/dev/imx0': Input/output error"},
        {"SetIMXHalfScanMode 0", "ErrorIOException",
         "SetIMXHalfScanMode: hscanmode=0;Unable to write register HSCAN_MODE of '/dev/imx0': Input/output error"},
    });
    // A word that is not a number is not a reply: the parse error leaves the handler.
    h.board().faults().clear(imxPath);
    EXPECT_THROW(h.run("SetIMXROIOffset 1 y"), std::invalid_argument);
    // The sensor type looks at the register's low byte only.
    for (auto [type, message] : {std::pair{0x100u, "GetIMXSensorType: 'color'"},
                                 {0x80u, "GetIMXSensorType: 'monochrome'"}}) {
        h.resources->imx().close();
        h.board().attach(imxPath, std::make_shared<TypedSensor>(h.board().faults(), type));
        h.resources->imx().open();
        expectExchanges(h, {{"GetIMXSensorType", "OK", message}});
    }
}

// The crop the device holds now, read through a descriptor of our own.
std::tuple<int, int, unsigned, unsigned> deviceCrop()
{
    auto& kernel = utils::platform::kernel();
    const int fd = kernel.open(videoPath, O_RDWR, 0);
    v4l2_crop crop{};
    crop.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(kernel.ioctl(fd, VIDIOC_G_CROP, &crop), 0);
    kernel.close(fd);
    return {crop.c.left, crop.c.top, crop.c.width, crop.c.height};
}

TEST(V4L2Routes, CropRefusalsAndBothIOErrorSpellings)
{
    k52test::RouterHarness h;
    const struct { const char* command; const char* message; std::tuple<int, int, unsigned, unsigned> crop; } cases[] = {
        {"SetV4L2CropCapabilities 8 16 320 240 99", "SetV4L2Crop: Set crop to left=8, top=16, width=320, height=240",
         {8, 16, 320, 240}},
        // Fewer than four values is no rectangle at all: the default crop.
        {"SetV4L2CropCapabilities 10 20 30", "SetV4L2Crop: No arguments provided, setting to default crop.",
         {0, 0, 2472, 2064}},
    };
    for (const auto& c : cases) {
        expectExchanges(h, {{c.command, "OK", c.message}});
        EXPECT_EQ(deviceCrop(), c.crop) << c.command;
    }
    // Fourccs in decimal as clients send them: GREY 1497715271, YUYV 1448695129.
    expectExchanges(h, {
        {"GetV4L2CropCapabilities", "OK",
         "GetV4L2CropCapabilities: Crop Capabilities - Bounds: 2472x2064, Default: 2472x2064"},
        {"SetV4L2Format 1497715271", "OK", "SetV4L2Format: Set format to GREY with index 0"},
        {"GetV4L2Format", "OK", "GetV4L2Format: Current format: GREY, Resolution: 640x480"},
        {"SetV4L2Format 1448695129 0", "ErrorRuntimeError",
         "SetV4L2Format: /dev/video0: pixel format 'YUYV' is not offered by the device."},
        {"SetV4L2Format 1497715271 3", "ErrorRuntimeError",
         "SetV4L2Format: /dev/video0: pixel format 'GREY' has no resolution index 3 (it has 3)."},
        {"SetV4L2Format 1497715271 0 7", "ErrorRuntimeError",
         "SetV4L2Format: Invalid number of arguments, need fourcc and index.Invalid arguments."},
        // Brightness 0x00980900 spans -64..64.
        {"SetV4L2Ctrl 9963776 -64", "OK", "SetV4L2Ctrl: control_id=9963776 'Brightness' set to -64"},
        {"SetV4L2Ctrl 9963776 65", "ErrorRuntimeError", "SetV4L2Ctrl: Invalid value range.Invalid arguments."},
        {"SetV4L2Ctrl 9963776 -65", "ErrorRuntimeError", "SetV4L2Ctrl: Invalid value range.Invalid arguments."},
        {"GetV4L2Ctrl 9963776", "OK", "GetV4L2Ctrl: control_id=9963776 'Brightness' is -64"},
        {"SetV4L2Ctrl 9963776", "ErrorRuntimeError",
         "SetV4L2Ctrl: Invalid number of arguments, need ID and value.Invalid arguments."},
        {"GetV4L2Ctrl 9963776 1", "ErrorRuntimeError",
         "GetV4L2Ctrl: Invalid number of arguments, need only ID.Invalid arguments."},
        // The class heading "User Controls" has no value; the device says so.
        {"GetV4L2Ctrl 9961473", "ErrorIOExceptions", "GetV4L2Ctrl: VIDIOC_G_CTRL '/dev/video0': Permission denied"},
    });
    // An id the device does not list is not a reply: the lookup's error leaves the handler.
    EXPECT_THROW(h.run("SetV4L2Ctrl 12345 0"), std::out_of_range);

    // The control routes spell the device-failure status with a final s, the others without.
    h.board().faults().inject(videoPath, Fault::ioError);
    expectExchanges(h, {
        {"GetV4L2CropCapabilities", "ErrorIOException",
         "GetV4L2CropCapabilities: VIDIOC_CROPCAP '/dev/video0': Input/output error"},
        // The default-crop note is noted before the call and stays before the error.
        {"SetV4L2CropCapabilities 1 2 3", "ErrorIOException",
         "SetV4L2Crop: No arguments provided, setting to default crop.VIDIOC_CROPCAP '/dev/video0': Input/output error"},
        {"SetV4L2Format 1497715271 0", "ErrorIOException",
         "SetV4L2Format: VIDIOC_ENUM_FMT '/dev/video0': Input/output error"},
        {"SetV4L2Ctrl 9963776 1", "ErrorIOExceptions", "SetV4L2Ctrl: VIDIOC_QUERYCTRL '/dev/video0': Input/output error"},
    });
}

} // namespace
