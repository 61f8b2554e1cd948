#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/iov4l2.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/v4l2sensor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <stdexcept>
#include <vector>

namespace {

using utils::IOV4L2;
using utils::platform::emulated::EmulatedBoard;
using utils::platform::emulated::Fault;
using utils::platform::emulated::SensorBus;

constexpr const char* device = "/dev/video0";
constexpr uint32_t grey = V4L2_PIX_FMT_GREY;
constexpr uint32_t rgb3 = V4L2_PIX_FMT_RGB24;

uint32_t le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }

// What one awaited frame looked like, copied out of the buffer.
struct Frame {
    uint32_t bytesUsed = 0;
    uint32_t sequence = 0;
    std::vector<uint8_t> bytes;
};

class IOV4L2Test : public ::testing::Test {
protected:
    void SetUp() override
    {
        utils::platform::emulated::attachV4L2Sensor(*board);
        utils::platform::installKernel(board);
        bus().setAcquisition(true);
        bus().setTrigger(SensorBus::Trigger::continuous);
        bus().setFramesPerSecond(0);
    }
    void TearDown() override { utils::platform::installKernel(nullptr); }

    SensorBus& bus() { return board->sensorBus(); }

    static void startStream(IOV4L2& camera, uint32_t fourcc, uint32_t index, uint32_t buffers = 4)
    {
        camera.setFormat(fourcc, index);
        camera.mapBuffers(buffers);
        for (uint32_t i = 0; i < camera.bufferCount(); ++i)
            camera.queryBuffer(i);
        camera.streamOn();
    }

    static Frame await(IOV4L2& camera, int timeoutMs = 2000)
    {
        Frame frame;
        camera.awaitFrameMap(timeoutMs, [&](const uint8_t* data, uint32_t used,
                                            const v4l2_buffer& buffer) {
            frame.bytesUsed = used;
            frame.sequence = buffer.sequence;
            frame.bytes.assign(data, data + used);
        });
        return frame;
    }

    std::shared_ptr<EmulatedBoard> board = std::make_shared<EmulatedBoard>();
};

TEST_F(IOV4L2Test, ListsFormatsAndPadsRowsToSixtyFourBytes)
{
    IOV4L2 camera(device);
    EXPECT_EQ(camera.getCapabilities().device_caps, uint32_t(V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING));
    std::vector<std::string> listed;
    for (const auto& format : camera.getCaptureResolutions()) {
        listed.push_back(IOV4L2::fourccToString(format.description.pixelformat));
        for (const auto& size : format.sizes)
            listed.push_back(std::to_string(size.width) + "x" + std::to_string(size.height));
    }
    EXPECT_EQ(listed, (std::vector<std::string>{"GREY", "640x480", "1456x1088", "2472x2064", "RGB3",
                                                "640x480", "1456x1088", "2472x2064"}));
    // The code is four characters, blanks included; the big-endian flag is no part of it.
    EXPECT_EQ(IOV4L2::fourccToString(V4L2_PIX_FMT_Y10), "Y10 ");
    EXPECT_EQ(IOV4L2::fourccToString(V4L2_PIX_FMT_Y16_BE), "Y16 ");

    const uint32_t cases[][5] = { // fourcc, index, width, height, bytes per line
        {grey, 0, 640, 480, 640},    {rgb3, 0, 640, 480, 1920},   {grey, 1, 1456, 1088, 1472},
        {rgb3, 1, 1456, 1088, 4416}, {grey, 2, 2472, 2064, 2496}, {rgb3, 2, 2472, 2064, 7424},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(IOV4L2::fourccToString(c[0]) + " #" + std::to_string(c[1]));
        camera.setFormat(c[0], c[1]);
        const v4l2_pix_format pix = camera.getFormat();
        EXPECT_EQ(std::vector<uint32_t>({pix.pixelformat, pix.width, pix.height, pix.bytesperline,
                                         pix.sizeimage}),
                  std::vector<uint32_t>({c[0], c[2], c[3], c[4], c[4] * c[3]}));
    }
}

TEST_F(IOV4L2Test, RejectsFormatsTheDeviceDoesNotOffer)
{
    IOV4L2 camera(device);
    EXPECT_THROW(camera.setFormat(V4L2_PIX_FMT_YUYV, 0), utils::UtilsRuntimeError);
    EXPECT_THROW(camera.setFormat(grey, 3), utils::UtilsRuntimeError);

    // Buffers are sized for the current format, so the device refuses a change meanwhile.
    camera.setFormat(grey, 0);
    camera.mapBuffers(2);
    EXPECT_THAT([&] { camera.setFormat(rgb3, 1); },
                k52test::throwsWith<utils::IOError>("VIDIOC_S_FMT", device));
    camera.unmapBuffers();
    EXPECT_NO_THROW(camera.setFormat(rgb3, 1));
}

TEST_F(IOV4L2Test, ListsControlsWithCategoriesAndMenus)
{
    IOV4L2 camera(device);
    std::vector<std::string> listed;
    for (const auto& [id, control] : camera.getControls()) {
        std::string line = reinterpret_cast<const char*>(control.query.name);
        line += ", " + IOV4L2::getControlType(control.query.type) + ", " + control.category + ", " +
                std::to_string(control.query.minimum) + ".." + std::to_string(control.query.maximum) + ",";
        for (const auto& entry : control.menu)
            line += " " + std::to_string(entry.index);
        listed.push_back(line);
    }
    EXPECT_EQ(listed, (std::vector<std::string>{
                          "User Controls, ctrl-class, user, 0..0,",
                          "Brightness, integer, user, -64..64,",
                          "Gain, integer, user, 0..24,",
                          "Horizontal Flip, boolean, user, 0..1,",
                          "Vertical Flip, boolean, user, 0..1,",
                          "Camera Controls, ctrl-class, camera, 0..0,",
                          "Auto Exposure, menu, camera, 0..3, 0 1 3",
                          "Image Processing Controls, ctrl-class, image-processing, 0..0,",
                          "Link Frequency, integer-menu, image-processing, 0..1, 0 1",
                          "Test Pattern, menu, image-processing, 0..3, 0 1 2 3",
                      }));
    const auto controls = camera.getControls();
    EXPECT_STREQ(reinterpret_cast<const char*>(controls.at(V4L2_CID_TEST_PATTERN).menu[3].name),
                 "Flat Field");
    EXPECT_EQ(controls.at(V4L2_CID_LINK_FREQ).menu[0].value, 594000000);
}

TEST_F(IOV4L2Test, SetsControlsWithinTheirRange)
{
    struct Case {
        uint32_t id;
        int32_t value;
        const char* error; // strerror text expected, or null for success
        std::optional<int32_t> stored{}; // what reads back on success, when not `value`
    };
    // As a real kernel does: integers are clamped into their range, booleans read non-zero as
    // 1, menus refuse an index outside their range.
    const Case cases[] = {
        {V4L2_CID_BRIGHTNESS, -64, nullptr},
        {V4L2_CID_BRIGHTNESS, 65, nullptr, 64},
        {V4L2_CID_GAIN, 24, nullptr},
        {V4L2_CID_GAIN, -1, nullptr, 0},
        {V4L2_CID_HFLIP, 2, nullptr, 1},
        {V4L2_CID_EXPOSURE_AUTO, 3, nullptr},
        {V4L2_CID_EXPOSURE_AUTO, 4, "Numerical result out of range"},
        {V4L2_CID_EXPOSURE_AUTO, 2, "Invalid argument"}, // a skipped menu entry
        {V4L2_CID_CAMERA_CLASS, 0, "Permission denied"},
        {V4L2_CID_LINK_FREQ, 1, "Permission denied"}, // read-only
        {0x00980999, 0, "Invalid argument"},
    };
    IOV4L2 camera(device);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.id) + " = " + std::to_string(c.value));
        if (c.error)
            EXPECT_THAT([&] { camera.setCtrl(c.id, c.value); },
                        k52test::throwsWith<utils::IOError>("VIDIOC_S_CTRL", c.error));
        else {
            camera.setCtrl(c.id, c.value);
            EXPECT_EQ(camera.getCtrl(c.id), c.stored.value_or(c.value));
        }
    }
}

TEST_F(IOV4L2Test, CropRoiAndFlipChangeWhatTheFrameShows)
{
    // Color bars, eight across the pixel array: white, yellow, cyan, green, magenta, red, blue,
    // black. Column 0 of the last row (clear of the counter box and the marker) tells which bar
    // the frame starts with; GREY is the bar's luma 0.299 R + 0.587 G + 0.114 B.
    struct Case {
        const char* name;
        utils::IOV4L2Crop crop;
        int32_t roiX;
        int32_t hflip;
        uint8_t firstColumn;
    };
    const Case cases[] = {
        {"default crop", {}, 0, 0, 255},
        {"right half", {V4L2_BUF_TYPE_VIDEO_CAPTURE, {1236, 0, 1236, 2064}}, 0, 0, 105},
        {"roi one bar right", {}, 309, 0, 225},
        {"mirrored", {}, 0, 1, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        IOV4L2 camera(device);
        auto crop = c.crop;
        camera.setCropCapabilities(&crop);
        bus().setRoiOffset(c.roiX, 0);
        camera.setCtrl(V4L2_CID_HFLIP, c.hflip);
        camera.setCtrl(V4L2_CID_TEST_PATTERN, 1);
        startStream(camera, grey, 0);
        EXPECT_EQ(await(camera).bytes[479 * 640], c.firstColumn);
    }
    IOV4L2 camera(device);
    const v4l2_cropcap caps = camera.getCropCapabilities();
    EXPECT_EQ(caps.bounds.width, 2472u);
    EXPECT_EQ(caps.bounds.height, 2064u);
    EXPECT_THROW(camera.setCropCapabilities(nullptr), utils::UtilsRuntimeError);
}

TEST_F(IOV4L2Test, ExposureGainAndBrightnessSetTheLevel)
{
    // The flat field is mid-grey (128) at the nominal 10 ms exposure.
    struct Case {
        uint32_t exposureUs;
        int32_t gainDb, brightness;
        uint8_t level;
    };
    const Case cases[] = {
        {10000, 0, 0, 128}, {5000, 0, 0, 64},   {40000, 0, 0, 255},
        {10000, 3, 0, 181}, {10000, 0, -28, 100},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.exposureUs) + " us");
        IOV4L2 camera(device);
        bus().setExposureUs(c.exposureUs);
        camera.setCtrl(V4L2_CID_GAIN, c.gainDb);
        camera.setCtrl(V4L2_CID_BRIGHTNESS, c.brightness);
        camera.setCtrl(V4L2_CID_TEST_PATTERN, 3);
        startStream(camera, rgb3, 1);
        const Frame frame = await(camera);
        const size_t lastRow = 1087 * 4416;
        EXPECT_EQ(frame.bytes[lastRow + 3 * 700], c.level);
        EXPECT_EQ(frame.bytes[lastRow + 3 * 700 + 2], c.level);
    }
}

TEST_F(IOV4L2Test, StreamsPaddedFramesWithAnAdvancingCounter)
{
    const uint32_t cases[][5] = { // fourcc, index, height, row bytes, stride
        {grey, 0, 480, 640, 640},
        {grey, 1, 1088, 1456, 1472},
        {rgb3, 1, 1088, 4368, 4416},
    };
    for (const auto& [fourcc, index, height, rowBytes, stride] : cases) {
        SCOPED_TRACE(IOV4L2::fourccToString(fourcc) + " #" + std::to_string(index));
        IOV4L2 camera(device);
        startStream(camera, fourcc, index, 3);
        std::vector<uint8_t> middleRow;
        for (uint32_t i = 0; i < 5; ++i) { // past the third frame buffers are painted again
            const Frame frame = await(camera);
            ASSERT_EQ(frame.bytesUsed, stride * height);
            EXPECT_EQ(frame.sequence, i);
            EXPECT_EQ(le32(frame.bytes.data()), i);
            EXPECT_EQ(le32(frame.bytes.data() + 4), ~i);
            const uint8_t* lastRow = frame.bytes.data() + size_t(height - 1) * stride;
            EXPECT_EQ(size_t(std::count(lastRow + rowBytes, lastRow + stride, 0)), stride - rowBytes);
            const uint8_t* middle = frame.bytes.data() + size_t(height / 2) * stride;
            if (i > 0) {
                EXPECT_FALSE(std::equal(middleRow.begin(), middleRow.end(), middle)) << "the marker stood";
            }
            middleRow.assign(middle, middle + rowBytes);
        }
        camera.unmapBuffers();
        EXPECT_FALSE(camera.isStreaming());
    }
}

TEST_F(IOV4L2Test, ManualTriggerGivesOneFramePerPulse)
{
    bus().setTrigger(SensorBus::Trigger::manual);
    IOV4L2 camera(device);
    startStream(camera, grey, 0);
    EXPECT_THROW(await(camera, 50), utils::UtilsTimeoutException);
    for (int i = 0; i < 3; ++i)
        bus().pulse();
    for (uint32_t i = 0; i < 3; ++i)
        EXPECT_EQ(await(camera).sequence, i);
    EXPECT_THROW(await(camera, 50), utils::UtilsTimeoutException);
}

TEST_F(IOV4L2Test, ContinuousModeKeepsTheFrameRate)
{
    bus().setFramesPerSecond(50);
    IOV4L2 camera(device);
    startStream(camera, grey, 0);
    for (int i = 0; i < 3; ++i) // the first frames include painting the scene
        await(camera);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i)
        await(camera);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(180));
}

TEST_F(IOV4L2Test, TimesOutWhenNoFrameComes)
{
    struct Case {
        const char* name;
        bool acquisition;
        Fault fault;
    };
    const Case cases[] = {{"acquisition off", false, Fault::none},
                          {"device never ready", true, Fault::timeout}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        bus().setAcquisition(c.acquisition);
        board->faults().inject(device, c.fault);
        IOV4L2 camera(device);
        startStream(camera, grey, 0);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_THROW(await(camera, 100), utils::UtilsTimeoutException);
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    }
}

TEST_F(IOV4L2Test, RequeuesTheBufferWhenTheHandlerThrows)
{
    IOV4L2 camera(device);
    startStream(camera, grey, 0, 2);
    // More failures than buffers: a lost buffer would starve the stream.
    for (int i = 0; i < 5; ++i) {
        EXPECT_THROW(camera.awaitFrameMap(2000, [](const uint8_t*, uint32_t, const v4l2_buffer&) {
            throw std::runtime_error("handler failed");
        }),
                     std::runtime_error);
    }
    EXPECT_NO_THROW(await(camera));
}

TEST_F(IOV4L2Test, ReportsDeviceFaultsAndMisuse)
{
    board->faults().inject(device, Fault::openFails);
    EXPECT_THAT([] { IOV4L2 camera(device); },
                k52test::throwsWith<utils::IOError>(device, "No such device"));
    board->faults().clear(device);
    EXPECT_THROW(IOV4L2("/dev/video7"), utils::IOError);
    {
        IOV4L2 camera(device);
        EXPECT_THROW(await(camera), utils::UtilsRuntimeError) << "not streaming";
        EXPECT_THROW(camera.queryBuffer(0), utils::UtilsRuntimeError);
        board->faults().inject(device, Fault::ioError);
        EXPECT_THROW(camera.getCapabilities(), utils::IOError);
    }
    board->faults().clear(device);
    board->faults().inject(device, Fault::shortFrame);
    IOV4L2 camera(device);
    startStream(camera, rgb3, 1);
    EXPECT_LT(await(camera).bytesUsed, 1456u * 1088u);
}

TEST_F(IOV4L2Test, OneDescriptorOwnsTheQueueUntilItCloses)
{
    IOV4L2 first(device);
    IOV4L2 second(device);
    startStream(first, grey, 0);
    EXPECT_THROW(second.mapBuffers(2), utils::IOError);
    await(first);

    // Closing and reopening returns the device to a clean state for the next stream.
    first.close();
    first.open();
    startStream(second, grey, 0);
    EXPECT_EQ(await(second).sequence, 0u);
}

} // namespace
