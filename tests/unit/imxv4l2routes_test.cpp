#include "support/routerharness.h"
#include "utils/io/registeraccess.h"
#include "utils/platform/emulated/virtualdevice.h"
#include "utils/platform/kernel.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <tuple>

namespace {

using k52test::Exchange;
using k52test::expectExchanges;

using utils::platform::emulated::Fault;

constexpr const char* imxPath = "/dev/imx0";
constexpr const char* videoPath = "/dev/video0";

TEST(IMXRoutes, RepliesAndSensorState)
{
    k52test::RouterHarness h;
    expectExchanges(h, {
        {"GetIMXSensorType", "OK", "GetIMXSensorType: 'monochrome'"},
        {"GetIMXExposure", "OK", "GetIMXExposure: Exposure = 10000 us"},
        {"SetIMXExposure 5000", "OK", "SetIMXExposure: Exposure set to 5000 us"},
        {"GetIMXExposure", "OK", "GetIMXExposure: Exposure = 5000 us"},
        {"SetIMXExposure 0", "ErrorIOException",
         "SetIMXExposure: Unable to write register EXPOSURE of '/dev/imx0': Invalid argument"},
        {"GetIMXExposure", "OK", "GetIMXExposure: Exposure = 5000 us"},

        {"GetIMXTriggerMode", "OK", "GetIMXTriggerMode: Trigger Mode = 1"},
        {"SetIMXTriggerMode 0", "OK", "SetIMXTriggerMode: Trigger Mode set to 0"},
        {"GetIMXTriggerMode", "OK", "GetIMXTriggerMode: Trigger Mode = 0"},
        // One byte reaches the sensor: 257 arrives as 1.
        {"SetIMXTriggerMode 257", "OK", "SetIMXTriggerMode: Trigger Mode set to 1"},
        {"GetIMXTriggerMode", "OK", "GetIMXTriggerMode: Trigger Mode = 1"},

        {"GetIMXHalfScanMode", "OK", "GetIMXHalfScanMode: Half-Scan Mode = 0"},
        {"SetIMXHalfScanMode 1", "OK", "SetIMXHalfScanMode: hscanmode=1;"},
        {"GetIMXHalfScanMode", "OK", "GetIMXHalfScanMode: Half-Scan Mode = 1"},
        // The reply text is built before the sensor is asked, so a refusal keeps it.
        {"SetIMXHalfScanMode 2", "ErrorIOException",
         "SetIMXHalfScanMode: hscanmode=2;Unable to write register HSCAN_MODE of '/dev/imx0': Invalid argument"},

        {"GetIMXROIOffset", "OK", "GetIMXROIOffset: ROI Offset = (0,0)"},
        {"SetIMXROIOffset 16 32", "OK", "SetIMXROIOffset: ROI Offset set to (16,32)"},
        {"GetIMXROIOffset", "OK", "GetIMXROIOffset: ROI Offset = (16,32)"},
        // The pixel array is 1456x1088: offsets outside it are refused and change nothing.
        {"SetIMXROIOffset 1456 0", "ErrorIOException",
         "SetIMXROIOffset: Unable to write register ROI_OFFSET of '/dev/imx0': Invalid argument"},
        {"SetIMXROIOffset -1 0", "ErrorIOException",
         "SetIMXROIOffset: Unable to write register ROI_OFFSET of '/dev/imx0': Invalid argument"},
        {"SetIMXROIOffset 0 1088", "ErrorIOException",
         "SetIMXROIOffset: Unable to write register ROI_OFFSET of '/dev/imx0': Invalid argument"},
        {"GetIMXROIOffset", "OK", "GetIMXROIOffset: ROI Offset = (16,32)"},
        {"SetIMXROIOffset 1455 1087", "OK", "SetIMXROIOffset: ROI Offset set to (1455,1087)"},
    });
    EXPECT_EQ(h.board().sensorBus().exposureUs(), 5000u);
    EXPECT_EQ(h.board().sensorBus().roiX(), 1455);
    EXPECT_EQ(h.board().sensorBus().roiY(), 1087);
}

// Missing values are answered before the sensor is touched, so even a dead sensor gives the
// note; every call that does reach it reports the device error under its route's prefix.
TEST(IMXRoutes, MissingValuesAndDeviceErrors)
{
    k52test::RouterHarness h;
    h.board().faults().inject(imxPath, Fault::ioError);
    expectExchanges(h, {
        {"SetIMXExposure", "Error", "SetIMXExposure: No exposure value provided."},
        {"SetIMXTriggerMode", "Error", "SetIMXTriggerMode: No trigger mode value provided."},
        {"SetIMXHalfScanMode", "Error", "SetIMXHalfScanMode: No half-scan mode value provided."},
        {"SetIMXROIOffset", "Error", "SetIMXROIOffset: No ROI x,y offset values provided."},
        {"SetIMXROIOffset 5", "Error", "SetIMXROIOffset: No ROI x,y offset values provided."},

        {"GetIMXSensorType", "ErrorIOException",
         "GetIMXSensorType: Unable to read register SENSOR_TYPE of '/dev/imx0': Input/output error"},
        {"GetIMXExposure", "ErrorIOException",
         "GetIMXExposure: Unable to read register EXPOSURE of '/dev/imx0': Input/output error"},
        {"SetIMXExposure 100", "ErrorIOException",
         "SetIMXExposure: Unable to write register EXPOSURE of '/dev/imx0': Input/output error"},
        {"GetIMXTriggerMode", "ErrorIOException",
         "GetIMXTriggerMode: Unable to read register TRIGGER_MODE of '/dev/imx0': Input/output error"},
        {"SetIMXTriggerMode 1", "ErrorIOException",
         "SetIMXTriggerMode: Unable to write register TRIGGER_MODE of '/dev/imx0': Input/output error"},
        {"GetIMXHalfScanMode", "ErrorIOException",
         "GetIMXHalfScanMode: Unable to read register HSCAN_MODE of '/dev/imx0': Input/output error"},
        {"SetIMXHalfScanMode 0", "ErrorIOException",
         "SetIMXHalfScanMode: hscanmode=0;Unable to write register HSCAN_MODE of '/dev/imx0': Input/output error"},
        {"GetIMXROIOffset", "ErrorIOException",
         "GetIMXROIOffset: Unable to read register ROI_OFFSET of '/dev/imx0': Input/output error"},
        {"SetIMXROIOffset 1 2", "ErrorIOException",
         "SetIMXROIOffset: Unable to write register ROI_OFFSET of '/dev/imx0': Input/output error"},
    });
    // A word that is not a number is not a reply: the parse error leaves the handler.
    h.board().faults().clear(imxPath);
    EXPECT_THROW(h.run("SetIMXROIOffset 1 y"), std::invalid_argument);
}

// A sensor whose type register reads a chosen value; nothing else.
class SensorTypeDevice : public utils::platform::emulated::VirtualDevice {
public:
    explicit SensorTypeDevice(uint32_t type) : type_(type) {}
    std::unique_ptr<utils::platform::emulated::VirtualFile> open(int) override
    {
        struct File : utils::platform::emulated::VirtualFile {
            uint32_t type;
            int ioctl(unsigned long request, void* argument) override
            {
                auto* access = static_cast<k52_register_access*>(argument);
                if (request != K52_REGISTER_READ || access->address != 0 ||
                    access->length != sizeof type)
                    return utils::platform::emulated::fail(EINVAL);
                std::memcpy(access->data, &type, sizeof type);
                return 0;
            }
        };
        auto file = std::make_unique<File>();
        file->type = type_;
        return file;
    }

private:
    uint32_t type_;
};

TEST(IMXRoutes, SensorTypeLooksAtTheLowByteOnly)
{
    k52test::RouterHarness h;
    const struct {
        uint32_t type;
        const char* message;
    } cases[] = {
        {0, "GetIMXSensorType: 'color'"},
        {0x100, "GetIMXSensorType: 'color'"},
        {1, "GetIMXSensorType: 'monochrome'"},
        {0x80, "GetIMXSensorType: 'monochrome'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        h.resources->imx().close();
        h.board().attach(imxPath, std::make_shared<SensorTypeDevice>(c.type));
        h.resources->imx().open();
        auto [status, message] = h.run("GetIMXSensorType");
        EXPECT_EQ(status, "OK");
        EXPECT_EQ(message, c.message);
    }
}

// The crop the device holds now, read through a descriptor of our own.
v4l2_rect deviceCrop()
{
    auto& kernel = utils::platform::kernel();
    const int fd = kernel.open(videoPath, O_RDWR, 0);
    EXPECT_GE(fd, 0);
    v4l2_crop crop{};
    crop.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(kernel.ioctl(fd, VIDIOC_G_CROP, &crop), 0);
    kernel.close(fd);
    return crop.c;
}

TEST(V4L2Routes, CropRoutesAndTheDefaultCrop)
{
    k52test::RouterHarness h;
    const struct {
        const char* command;
        const char* message;
        v4l2_rect expected;
    } cases[] = {
        {"SetV4L2CropCapabilities 100 200 640 480",
         "SetV4L2Crop: Set crop to left=100, top=200, width=640, height=480", {100, 200, 640, 480}},
        // Fewer than four values is no rectangle at all: the default crop.
        {"SetV4L2CropCapabilities 10 20 30", "SetV4L2Crop: No arguments provided, setting to default crop.",
         {0, 0, 2472, 2064}},
        {"SetV4L2CropCapabilities 8 16 320 240 99", "SetV4L2Crop: Set crop to left=8, top=16, width=320, height=240",
         {8, 16, 320, 240}},
        {"SetV4L2CropCapabilities", "SetV4L2Crop: No arguments provided, setting to default crop.",
         {0, 0, 2472, 2064}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        auto [status, message] = h.run(c.command);
        EXPECT_EQ(status, "OK");
        EXPECT_EQ(message, c.message);
        const v4l2_rect crop = deviceCrop();
        EXPECT_EQ(std::tie(crop.left, crop.top, crop.width, crop.height),
                  std::tie(c.expected.left, c.expected.top, c.expected.width, c.expected.height));
    }
}

TEST(V4L2Routes, FormatAndControlReplies)
{
    k52test::RouterHarness h;
    // Fourccs in decimal as clients send them: RGB3 859981650, GREY 1497715271, YUYV 1448695129.
    expectExchanges(h, {
        {"GetV4L2CropCapabilities", "OK",
         "GetV4L2CropCapabilities: Crop Capabilities - Bounds: 2472x2064, Default: 2472x2064"},
        {"GetV4L2Format", "OK", "GetV4L2Format: Current format: GREY, Resolution: 1456x1088"},
        {"SetV4L2Format 859981650 2", "OK", "SetV4L2Format: Set format to RGB3 with index 2"},
        {"GetV4L2Format", "OK", "GetV4L2Format: Current format: RGB3, Resolution: 2472x2064"},
        {"SetV4L2Format 1497715271", "OK", "SetV4L2Format: Set format to GREY with index 0"},
        {"GetV4L2Format", "OK", "GetV4L2Format: Current format: GREY, Resolution: 640x480"},
        {"SetV4L2Format 1448695129 0", "ErrorRuntimeError",
         "SetV4L2Format: /dev/video0: pixel format 'YUYV' is not offered by the device."},
        {"SetV4L2Format 1497715271 3", "ErrorRuntimeError",
         "SetV4L2Format: /dev/video0: pixel format 'GREY' has no resolution index 3 (it has 3)."},
        {"SetV4L2Format 1497715271 0 7", "ErrorRuntimeError",
         "SetV4L2Format: Invalid number of arguments, need fourcc and index.Invalid arguments."},
        {"GetV4L2Format", "OK", "GetV4L2Format: Current format: GREY, Resolution: 640x480"},

        // Brightness 0x00980900 spans -64..64.
        {"GetV4L2Ctrl 9963776", "OK", "GetV4L2Ctrl: control_id=9963776 'Brightness' is 0"},
        {"SetV4L2Ctrl 9963776 64", "OK", "SetV4L2Ctrl: control_id=9963776 'Brightness' set to 64"},
        {"GetV4L2Ctrl 9963776", "OK", "GetV4L2Ctrl: control_id=9963776 'Brightness' is 64"},
        {"SetV4L2Ctrl 9963776 -64", "OK", "SetV4L2Ctrl: control_id=9963776 'Brightness' set to -64"},
        {"SetV4L2Ctrl 9963776 65", "ErrorRuntimeError", "SetV4L2Ctrl: Invalid value range.Invalid arguments."},
        {"SetV4L2Ctrl 9963776 -65", "ErrorRuntimeError", "SetV4L2Ctrl: Invalid value range.Invalid arguments."},
        {"GetV4L2Ctrl 9963776", "OK", "GetV4L2Ctrl: control_id=9963776 'Brightness' is -64"},
        // Test Pattern 0x009f0903 is a menu 0..3.
        {"SetV4L2Ctrl 10422531 3", "OK", "SetV4L2Ctrl: control_id=10422531 'Test Pattern' set to 3"},
        {"SetV4L2Ctrl 10422531 4", "ErrorRuntimeError", "SetV4L2Ctrl: Invalid value range.Invalid arguments."},

        {"SetV4L2Ctrl 9963776", "ErrorRuntimeError",
         "SetV4L2Ctrl: Invalid number of arguments, need ID and value.Invalid arguments."},
        {"SetV4L2Ctrl", "ErrorRuntimeError",
         "SetV4L2Ctrl: Invalid number of arguments, need ID and value.Invalid arguments."},
        {"GetV4L2Ctrl", "ErrorRuntimeError", "GetV4L2Ctrl: Invalid number of arguments, need only ID.Invalid arguments."},
        {"GetV4L2Ctrl 9963776 1", "ErrorRuntimeError",
         "GetV4L2Ctrl: Invalid number of arguments, need only ID.Invalid arguments."},
        // The class heading "User Controls" has no value; the device says so.
        {"GetV4L2Ctrl 9961473", "ErrorIOExceptions",
         "GetV4L2Ctrl: VIDIOC_G_CTRL '/dev/video0': Permission denied"},
        {"GetV4L2Ctrl 12345", "ErrorIOExceptions", "GetV4L2Ctrl: VIDIOC_G_CTRL '/dev/video0': Invalid argument"},
    });
    // An id the device does not list is not a reply: the lookup's error leaves the handler.
    EXPECT_THROW(h.run("SetV4L2Ctrl 12345 0"), std::out_of_range);
}

// Device failures: the control routes spell the status with a final s, the others without.
TEST(V4L2Routes, InjectedIOErrorsUseBothStatusSpellings)
{
    k52test::RouterHarness h;
    h.board().faults().inject(videoPath, Fault::ioError);
    expectExchanges(h, {
        {"GetV4L2CropCapabilities", "ErrorIOException",
         "GetV4L2CropCapabilities: VIDIOC_CROPCAP '/dev/video0': Input/output error"},
        {"SetV4L2CropCapabilities 0 0 640 480", "ErrorIOException",
         "SetV4L2Crop: VIDIOC_S_CROP '/dev/video0': Input/output error"},
        // The default-crop note is noted before the call and stays before the error.
        {"SetV4L2CropCapabilities 1 2 3", "ErrorIOException",
         "SetV4L2Crop: No arguments provided, setting to default crop.VIDIOC_CROPCAP '/dev/video0': Input/output error"},
        {"GetV4L2Format", "ErrorIOException", "GetV4L2Format: VIDIOC_G_FMT '/dev/video0': Input/output error"},
        {"SetV4L2Format 1497715271 0", "ErrorIOException",
         "SetV4L2Format: VIDIOC_ENUM_FMT '/dev/video0': Input/output error"},
        {"GetV4L2Ctrl 9963776", "ErrorIOExceptions", "GetV4L2Ctrl: VIDIOC_G_CTRL '/dev/video0': Input/output error"},
        {"SetV4L2Ctrl 9963776 1", "ErrorIOExceptions",
         "SetV4L2Ctrl: VIDIOC_QUERYCTRL '/dev/video0': Input/output error"},
    });
}

} // namespace
