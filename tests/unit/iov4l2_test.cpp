#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/iov4l2.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/v4l2sensor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <tuple>
#include <stdexcept>
#include <vector>

namespace {

using utils::IOV4L2;
using utils::platform::emulated::Fault;
using utils::platform::emulated::SensorBus;

constexpr const char* device = "/dev/video0";
constexpr uint32_t grey = V4L2_PIX_FMT_GREY;
constexpr uint32_t rgb3 = V4L2_PIX_FMT_RGB24;

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
        board->sensorBus().setAcquisition(true);
        board->sensorBus().setTrigger(SensorBus::Trigger::continuous);
        board->sensorBus().setFramesPerSecond(0);
    }
    void TearDown() override { utils::platform::installKernel(nullptr); }

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
        camera.awaitFrameMap(timeoutMs, [&](const uint8_t* data, uint32_t used, const v4l2_buffer& buffer) {
            frame = {used, buffer.sequence, {data, data + used}};
        });
        return frame;
    }

    std::shared_ptr<utils::platform::emulated::EmulatedBoard> board =
        std::make_shared<utils::platform::emulated::EmulatedBoard>();
};

TEST_F(IOV4L2Test, FormatsPadRowsToSixtyFourBytes)
{
    IOV4L2 camera(device);
    EXPECT_EQ(camera.getCapabilities().device_caps, uint32_t(V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING));
    const uint32_t cases[][5] = { // fourcc, index, width, height, bytes per line
        {grey, 0, 640, 480, 640},    {rgb3, 0, 640, 480, 1920},   {grey, 1, 1456, 1088, 1472},
        {rgb3, 1, 1456, 1088, 4416}, {grey, 2, 2472, 2064, 2496}, {rgb3, 2, 2472, 2064, 7424},
    };
    for (const auto& c : cases) {
        camera.setFormat(c[0], c[1]);
        const v4l2_pix_format pix = camera.getFormat();
        EXPECT_EQ(std::vector<uint32_t>({pix.pixelformat, pix.width, pix.height, pix.bytesperline, pix.sizeimage}),
                  std::vector<uint32_t>({c[0], c[2], c[3], c[4], c[4] * c[3]}))
            << IOV4L2::fourccToString(c[0]) << " #" << c[1];
    }
    // Buffers are sized for the current format, so the device refuses a change meanwhile.
    camera.mapBuffers(2);
    EXPECT_THAT([&] { camera.setFormat(rgb3, 1); }, k52test::throwsWith<utils::IOError>("VIDIOC_S_FMT", device));
}

TEST_F(IOV4L2Test, ControlsAreListedAndSetAsTheKernelWould)
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
                          "User Controls, ctrl-class, user, 0..0,", "Brightness, integer, user, -64..64,",
                          "Gain, integer, user, 0..24,", "Horizontal Flip, boolean, user, 0..1,",
                          "Vertical Flip, boolean, user, 0..1,", "Camera Controls, ctrl-class, camera, 0..0,",
                          "Auto Exposure, menu, camera, 0..3, 0 1 3",
                          "Image Processing Controls, ctrl-class, image-processing, 0..0,",
                          "Link Frequency, integer-menu, image-processing, 0..1, 0 1",
                          "Test Pattern, menu, image-processing, 0..3, 0 1 2 3",
                      }));

    // Values inside a control's range the device may still refuse: a value a menu skips, any
    // value of a read-only control.
    for (auto [id, value, error] : {std::tuple{V4L2_CID_EXPOSURE_AUTO, 2, "Invalid argument"},
                                    std::tuple{V4L2_CID_LINK_FREQ, 1, "Permission denied"}})
        EXPECT_THAT([&] { camera.setCtrl(id, value); },
                    k52test::throwsWith<utils::IOError>("VIDIOC_S_CTRL", error)) << id;
}

// The frame counter in the first bytes is the stream tests' (end to end).
TEST_F(IOV4L2Test, StreamsPaddedFramesThroughRequeuedBuffers)
{
    IOV4L2 camera(device);
    startStream(camera, rgb3, 1, 3); // rows of 4368 bytes in 4416
    for (uint32_t i = 0; i < 5; ++i) { // past the third frame every buffer came back
        const Frame frame = await(camera);
        ASSERT_EQ(frame.bytesUsed, 4416u * 1088);
        EXPECT_EQ(frame.sequence, i);
        const uint8_t* lastRow = frame.bytes.data() + size_t(1087) * 4416;
        EXPECT_EQ(std::count(lastRow + 4368, lastRow + 4416, 0), 48);
    }
    camera.unmapBuffers();
    EXPECT_FALSE(camera.isStreaming());
    // More failing handlers than buffers: a buffer not requeued would starve the stream.
    startStream(camera, grey, 0, 2);
    for (int i = 0; i < 3; ++i)
        EXPECT_THROW(camera.awaitFrameMap(2000, [](auto...) { throw std::runtime_error("handler"); }),
                     std::runtime_error);
    EXPECT_NO_THROW(await(camera));
}

TEST_F(IOV4L2Test, ReportsDeviceFaultsMisuseAndTimeouts)
{
    board->faults().inject(device, Fault::openFails);
    EXPECT_THAT([] { IOV4L2 camera(device); }, k52test::throwsWith<utils::IOError>(device, "No such device"));
    board->faults().clear(device);
    IOV4L2 camera(device);
    EXPECT_THROW(await(camera), utils::UtilsRuntimeError) << "not streaming";

    board->sensorBus().setAcquisition(false);
    startStream(camera, grey, 0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(await(camera, 100), utils::UtilsTimeoutException);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    board->faults().inject(device, Fault::ioError);
    EXPECT_THROW(camera.getCapabilities(), utils::IOError);
}

} // namespace
