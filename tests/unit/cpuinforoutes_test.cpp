#include "support/routerharness.h"
#include "utils/platform/emulated/textfile.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using k52test::RouterHarness;
using utils::platform::emulated::Fault;
using utils::platform::emulated::TextFile;

constexpr const char* cpuInfo = "/proc/cpuinfo";

// Each command reads the file afresh, so a changed file shows in the next reply.
TEST(CpuInfoRoutes, ReportTheFileAsItIsNow)
{
    RouterHarness h;
    struct Case {
        const char* content; // null: the board's own file
        const char* chipId;
        const char* hardware;
    };
    const Case cases[] = {
        {nullptr, "GetCPUInfoChipID:  Serial: 00000000e52a0b1c",
         "GetCPUInfoHardware: Hardware : K52 emulated board"},
        {"processor\t: 0\nHardware\t: Board B\nSerial\t\t: 0000000012345678\n",
         "GetCPUInfoChipID:  Serial: 0000000012345678", "GetCPUInfoHardware: Hardware : Board B"},
        {"processor\t: 0\n", "GetCPUInfoChipID:  Serial: unknown",
         "GetCPUInfoHardware: Hardware : unknown"},
    };
    auto file = std::dynamic_pointer_cast<TextFile>(h.board().device(cpuInfo));
    ASSERT_NE(file, nullptr);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.chipId);
        if (c.content)
            file->setContent(c.content);
        auto chip = h.run("GetCPUInfoChipID");
        EXPECT_EQ(chip.first, "OK");
        EXPECT_EQ(chip.second, c.chipId);
        auto hardware = h.run("GetCPUInfoHardware extra words");
        EXPECT_EQ(hardware.first, "OK");
        EXPECT_EQ(hardware.second, c.hardware);
    }
}

TEST(CpuInfoRoutes, FileFailuresBecomeIOExceptionRepliesAfterThePrefix)
{
    for (Fault fault : {Fault::openFails, Fault::ioError}) {
        RouterHarness h;
        h.board().faults().inject(cpuInfo, fault);
        for (const std::string route : {"GetCPUInfoChipID", "GetCPUInfoHardware"}) {
            SCOPED_TRACE(route);
            auto [status, message] = h.run(route);
            EXPECT_EQ(status, "ErrorIOException");
            EXPECT_EQ(message.rfind(route + ": ", 0), 0u) << message;
            EXPECT_NE(message.find(cpuInfo), std::string::npos) << message; // the reader's text
        }
    }
}

} // namespace
