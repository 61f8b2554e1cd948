#include "support/board.h"
#include "support/throws.h"
#include "utils/base/exceptions.h"
#include "utils/io/ioimx.h"
#include "utils/io/ioimxdataadapter.h"
#include "utils/platform/emulated/board.h"
#include "utils/platform/emulated/imxmodel.h"
#include "utils/platform/kernel.h"

#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <optional>

namespace {

using namespace utils::platform::emulated;
using utils::IOIMX;

class IMXTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        attachIMX(*board);
        imx.emplace("/dev/imx0", O_RDWR);
    }

    k52test::InstalledBoard board; // first: the devices close through it
    std::optional<IOIMX> imx;
};

// Exposure and region of interest live on the sensor, which the RTU drives as well.
TEST_F(IMXTest, SettingsAreTheSensorBusState)
{
    SensorBus& bus = board->sensorBus();
    imx->setExposure(10'000'000);
    EXPECT_EQ(bus.exposureUs(), 10'000'000u);
    EXPECT_THAT([&] { imx->setExposure(10'000'001); }, k52test::throwsWith<utils::IOError>("EXPOSURE"));
    bus.setExposureUs(777);
    EXPECT_EQ(imx->getExposure(), 777u);
    imx->setROIXYOffset(1455, 1087);
    EXPECT_EQ(bus.roiX(), 1455);
    EXPECT_EQ(bus.roiY(), 1087);

    board->faults().inject("/dev/imx0", Fault::timeout);
    EXPECT_THAT([&] { imx->getSensorModel(); }, k52test::throwsWith<utils::IOError>("/dev/imx0"));
    board->faults().inject("/dev/imx0", Fault::openFails);
    EXPECT_THROW(IOIMX("/dev/imx0", O_RDWR), utils::IOError); // the constructor opens
}

// The adapter's record also carries the sensor's identity (model, monochrome type).
TEST_F(IMXTest, DataAdapterRecordsTheSensor)
{
    imx->setExposure(3000);
    imx->setROIXYOffset(4, 2);
    utils::IOIMXDataAdapter adapter{};
    adapter.load(*imx);

    tinyxml2::XMLDocument document;
    auto* element = document.NewElement("imx");
    document.InsertFirstChild(element);
    adapter.toXml(element);
    adapter.toXml(element); // a refresh replaces, it does not add
    EXPECT_STREQ(element->FirstChildElement("model")->GetText(), "imx296");
    EXPECT_STREQ(element->FirstChildElement("sensorType")->GetText(), "monochrome");
    EXPECT_STREQ(element->FirstChildElement("exposure")->GetText(), "3000");
    EXPECT_STREQ(element->FirstChildElement("roiX")->GetText(), "4");
    EXPECT_STREQ(element->FirstChildElement("width")->GetText(), "1456");
    EXPECT_EQ(element->FirstChildElement("roiX")->NextSiblingElement("roiX"), nullptr);
}

} // namespace
