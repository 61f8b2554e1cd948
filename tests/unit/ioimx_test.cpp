#include "utils/base/exceptions.h"
#include "utils/io/ioimx.h"
#include "utils/io/ioimxdataadapter.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/imxmodel.h"
#include "utils/platform/kernel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <functional>
#include <optional>

namespace {

using namespace utils::platform::emulated;
using utils::IOIMX;

class IMXTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        board = std::make_shared<EmulatedBoard>();
        attachIMX(*board);
        utils::platform::installKernel(board);
        imx.emplace("/dev/imx0", O_RDWR);
    }
    void TearDown() override
    {
        imx.reset();
        utils::platform::installKernel(nullptr);
    }

    std::shared_ptr<EmulatedBoard> board;
    std::optional<IOIMX> imx;
};

TEST_F(IMXTest, SettingsRoundTripAndReachTheSensorBus)
{
    SensorBus& bus = board->sensorBus();
    imx->setExposure(2500);
    EXPECT_EQ(imx->getExposure(), 2500u);
    EXPECT_EQ(bus.exposureUs(), 2500u);
    bus.setExposureUs(777); // the RTU sets exposure on the same sensor
    EXPECT_EQ(imx->getExposure(), 777u);

    imx->setROIXYOffset(1455, 1087);
    EXPECT_EQ(imx->getROIXYOffset(), std::make_pair(1455, 1087));
    EXPECT_EQ(bus.roiX(), 1455);
    EXPECT_EQ(bus.roiY(), 1087);

    for (unsigned char mode : {0, 1, 255}) {
        imx->setTriggerMode(mode);
        EXPECT_EQ(imx->getTriggerMode(), mode);
    }
    imx->setScanMode(utils::HSCAN_MODE_HALF);
    EXPECT_EQ(imx->getHalfScanMode(), utils::HSCAN_MODE_HALF);
}

TEST_F(IMXTest, OutOfRangeSettingsAreRefused)
{
    imx->setExposure(1000);
    imx->setROIXYOffset(16, 8);
    imx->setScanMode(utils::HSCAN_MODE_FULL);
    const std::pair<const char*, std::function<void()>> refused[] = {
        {"exposure 0", [&] { imx->setExposure(0); }},
        {"exposure above 10 s", [&] { imx->setExposure(10'000'001); }},
        {"negative x", [&] { imx->setROIXYOffset(-1, 0); }},
        {"x past the array", [&] { imx->setROIXYOffset(1456, 0); }},
        {"y past the array", [&] { imx->setROIXYOffset(0, 1088); }},
        {"scan mode 2", [&] { imx->setScanMode(static_cast<utils::_hscan_modes_t>(2)); }},
    };
    for (const auto& [what, call] : refused) {
        SCOPED_TRACE(what);
        EXPECT_THROW(call(), utils::IOError);
    }
    EXPECT_EQ(imx->getExposure(), 1000u);
    EXPECT_EQ(imx->getROIXYOffset(), std::make_pair(16, 8));
    EXPECT_EQ(board->sensorBus().roiX(), 16);
    EXPECT_EQ(imx->getHalfScanMode(), utils::HSCAN_MODE_FULL);
}

TEST_F(IMXTest, FaultsBecomeIOErrorsNamingTheDevice)
{
    for (Fault fault : {Fault::ioError, Fault::timeout}) {
        board->faults().inject("/dev/imx0", fault);
        EXPECT_THAT([&] { imx->getSensorModel(); },
                    testing::ThrowsMessage<utils::IOError>(testing::HasSubstr("/dev/imx0")));
        board->faults().clear("/dev/imx0");
    }
    board->faults().inject("/dev/imx0", Fault::openFails);
    EXPECT_THROW(IOIMX("/dev/imx0", O_RDWR), utils::IOError); // the constructor opens
}

// The adapter's record also carries the sensor's identity (model, monochrome type).
TEST_F(IMXTest, DataAdapterRecordsTheSensor)
{
    EXPECT_EQ(imx->getPixelWidth(), 1456u);
    EXPECT_EQ(imx->getPixelHeight(), 1088u);
    imx->setExposure(3000);
    imx->setROIXYOffset(4, 2);
    utils::IOIMXDataAdapter adapter{};
    adapter.load(*imx);
    EXPECT_STREQ(adapter.data.model, "imx296");
    EXPECT_EQ(adapter.data.exposureUs, 3000u);

    tinyxml2::XMLDocument document;
    auto* element = document.NewElement("imx");
    document.InsertFirstChild(element);
    adapter.toXml(element);
    adapter.toXml(element);
    EXPECT_STREQ(element->FirstChildElement("model")->GetText(), "imx296");
    EXPECT_STREQ(element->FirstChildElement("sensorType")->GetText(), "monochrome");
    EXPECT_STREQ(element->FirstChildElement("roiX")->GetText(), "4");
    EXPECT_EQ(element->FirstChildElement("roiX")->NextSiblingElement("roiX"), nullptr);
}

} // namespace
