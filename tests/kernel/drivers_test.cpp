// The Linux drivers against the kernel VM's devices (scripts/test-kernel.sh): vivid's capture
// node and the i2c-stub adapter. Each test skips where its node is not that driver, so the
// suite passes, doing nothing, anywhere else.
#include "client/connection.h"
#include "support/daemonprocess.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioi2cfile.h"
#include "utils/io/iov4l2.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

constexpr const char* videoNode = "/dev/video0";

bool isVivid()
{
    try {
        utils::IOV4L2 camera(videoNode);
        return std::string(reinterpret_cast<const char*>(camera.getCapabilities().driver)) == "vivid";
    } catch (const std::exception&) {
        return false;
    }
}

// The board script links /dev/i2c-N to the stub adapter's own node.
bool isI2CStub(const std::string& bus)
{
    std::array<char, PATH_MAX> target{};
    if (!::realpath(bus.c_str(), target.data()))
        return false;
    const std::string node = std::string(target.data()).substr(5); // past "/dev/"
    std::ifstream name("/sys/class/i2c-dev/" + node + "/name");
    std::string text;
    std::getline(name, text);
    return text == "SMBus stub driver";
}

#define SKIP_UNLESS_VIVID()                                                                      \
    if (!isVivid())                                                                              \
    GTEST_SKIP() << videoNode << " is not vivid"

// The index of `fourcc` in the device's list, or -1.
int formatIndex(const std::vector<utils::IOV4L2Format>& formats, uint32_t fourcc)
{
    for (size_t i = 0; i < formats.size(); ++i)
        if (formats[i].description.pixelformat == fourcc)
            return static_cast<int>(i);
    return -1;
}

TEST(KernelV4L2, StreamsTheDaemonsFormatsAtEverySizeKind)
{
    SKIP_UNLESS_VIVID();
    utils::IOV4L2 camera(videoNode);
    const auto formats = camera.getCaptureResolutions();
    for (uint32_t fourcc : {V4L2_PIX_FMT_GREY, V4L2_PIX_FMT_RGB24}) {
        SCOPED_TRACE(utils::IOV4L2::fourccToString(fourcc));
        const int index = formatIndex(formats, fourcc);
        ASSERT_GE(index, 0);
        const auto& sizes = formats[static_cast<size_t>(index)].sizes;
        ASSERT_FALSE(sizes.empty());
        // The smallest and the largest size the driver lists.
        for (uint32_t sizeIndex : {0u, static_cast<uint32_t>(sizes.size() - 1)}) {
            SCOPED_TRACE(sizeIndex);
            camera.setFormat(fourcc, sizeIndex);
            const v4l2_pix_format format = camera.getFormat();
            EXPECT_EQ(format.width, sizes[sizeIndex].width);
            EXPECT_EQ(format.height, sizes[sizeIndex].height);
            ASSERT_GE(format.bytesperline, format.width * utils::IOV4L2::channels(fourcc));
            camera.mapBuffers(3);
            for (uint32_t i = 0; i < camera.bufferCount(); ++i)
                camera.queryBuffer(i);
            camera.streamOn();
            for (int frame = 0; frame < 2; ++frame) {
                camera.awaitFrameMap(5000, [&](const uint8_t* data, uint32_t used, const v4l2_buffer&) {
                    EXPECT_NE(data, nullptr);
                    EXPECT_EQ(used, format.sizeimage);
                });
            }
            camera.unmapBuffers();
            EXPECT_FALSE(camera.isStreaming());
        }
    }
}

TEST(KernelV4L2, ControlsAndTheMissingCrop)
{
    SKIP_UNLESS_VIVID();
    utils::IOV4L2 camera(videoNode);
    const auto controls = camera.getControls();
    size_t menus = 0, integerMenus = 0;
    for (const auto& [id, control] : controls) {
        SCOPED_TRACE(reinterpret_cast<const char*>(control.query.name));
        if (control.query.type == V4L2_CTRL_TYPE_MENU || control.query.type == V4L2_CTRL_TYPE_INTEGER_MENU) {
            ++(control.query.type == V4L2_CTRL_TYPE_MENU ? menus : integerMenus);
            EXPECT_FALSE(control.menu.empty());
        }
    }
    EXPECT_GT(menus, 0u);
    EXPECT_GT(integerMenus, 0u);

    const uint32_t brightness = V4L2_CID_BRIGHTNESS;
    ASSERT_TRUE(controls.count(brightness));
    camera.setCtrl(brightness, 200);
    EXPECT_EQ(camera.getCtrl(brightness), 200);
    // The kernel clamps an integer control into its range rather than refusing the value.
    camera.setCtrl(brightness, 1000);
    EXPECT_EQ(camera.getCtrl(brightness), controls.at(brightness).query.maximum);

    // A webcam input has no cropping: the kernel answers ENODATA, which the driver reports.
    try {
        camera.getCropCapabilities();
        ADD_FAILURE() << "VIDIOC_CROPCAP succeeded";
    } catch (const utils::IOError& e) {
        EXPECT_NE(std::string(e.what()).find("No data available"), std::string::npos) << e.what();
    }
}

// A second streamer is refused by the kernel (EBUSY): the daemon records the refusal and
// answers with its reply for a stream that never started.
TEST(KernelV4L2, BusyCaptureNodeGivesTheDaemonsErrorReply)
{
    SKIP_UNLESS_VIVID();
    if (!k52test::onRealKernel())
        GTEST_SKIP() << "K52_TEST_CONFIG does not drive the kernel";
    utils::IOV4L2 holder(videoNode);
    holder.setFormat(V4L2_PIX_FMT_GREY, 0);
    holder.mapBuffers(2);

    k52test::DaemonProcess daemon;
    k52client::ControlClient client("127.0.0.1", daemon.controlPort());
    const auto ack = client.command("CaptureStreamStart GREY 0", std::chrono::seconds(20));
    EXPECT_EQ(ack.status().rfind("Error", 0), 0u) << ack.status();
    EXPECT_EQ(ack.reply(), "CaptureStart: /dev/video0: cannot wait for a frame, the device is not streaming.");
    EXPECT_GE(daemon.findRecord("Ignoring exception: VIDIOC_S_FMT '/dev/video0': Device or resource busy"), 0);
    EXPECT_EQ(client.command("help").status(), "OK");
}

TEST(KernelI2C, SMBusTransfersReachTheStubsRegisters)
{
    const std::string bus = "/dev/i2c-2";
    if (!isI2CStub(bus))
        GTEST_SKIP() << bus << " is not i2c-stub";
    utils::IOI2CFile eeprom(bus, 0x50);
    ASSERT_EQ(eeprom.writeRegister(0x10, 0xA5), 0);
    uint8_t value = 0;
    ASSERT_EQ(eeprom.readRegister(0x10, value), 0);
    EXPECT_EQ(value, 0xA5);

    // The stub keeps a word per register; its low byte is what byte data reads.
    eeprom.writeWord(0x20, 0x1234);
    EXPECT_EQ(eeprom.readWord(0x20), 0x1234);
    ASSERT_EQ(eeprom.readRegister(0x20, value), 0);
    EXPECT_EQ(value, 0x34);

    const std::array<uint8_t, 5> block{1, 2, 3, 4, 5};
    eeprom.writeBlock(0x30, block);
    std::array<uint8_t, 5> back{};
    eeprom.readBlock(0x30, back);
    EXPECT_EQ(back, block);

    // No chip at that address: a real adapter sees a NACK (ENXIO), the stub answers ENODEV.
    utils::IOI2CFile absent(bus, 0x11);
    EXPECT_EQ(absent.readRegister(0, value), -ENODEV);
}

} // namespace
