// RTU routes through the real daemon: what a client sees on the wire, colours included, and
// the worker's records.
#include "client/connection.h"
#include "support/daemonprocess.h"

#include <gtest/gtest.h>

using k52client::ControlClient;
using k52test::DaemonProcess;

namespace {

constexpr uint32_t olive = 0x788A3D, orange = 0xFF9D00, red = 0xF2351F;

TEST(RTURoutesOnTheWire, RepliesAndColoursPerOutcome)
{
    DaemonProcess daemon;
    ControlClient client("127.0.0.1", daemon.controlPort());
    struct Case {
        const char* command;
        uint32_t color;
        const char* status;
        const char* reply;
    };
    const Case cases[] = {
        {"SetRTUFPS 25", olive, "OK", "SetFPS: FPS set to 25"},
        {"SetRTUTriggerMode 2", orange, "ErrorRuntimeError",
         "SetTriggerMode: Invalid trigger mode. Must be 0 (manual) or 1 (continuous)."},
        // A missing argument and an out-of-range state leave the handler: the worker answers in red
        // with the C library's errno text first.
        {"SetRTUIOValue 1", red, "Success", "_M_range_check"},
        {"SetRTUDeviceState 7", red, "Success", "Device state out of range [1, 6]"},
        // The worker survives those exceptions and serves the next command.
        {"GetRTUFPS", olive, "OK", "GetRTUFPS: RTU FPS: 25"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        auto ack = client.command(c.command);
        EXPECT_EQ(ack.color, c.color);
        EXPECT_EQ(ack.status(), c.status);
        if (std::string(c.status) == "Success")
            EXPECT_NE(ack.reply().find(c.reply), std::string::npos) << ack.reply();
        else
            EXPECT_EQ(ack.reply(), c.reply);
    }
    // The worker records every command it runs and its outcome.
    EXPECT_GE(daemon.findRecord(":: Spinning SetRTUTriggerMode"), 0);
    long status = daemon.findRecord("Status: ErrorRuntimeError");
    ASSERT_GE(status, 0);
    EXPECT_GE(daemon.findRecord("Result: SetTriggerMode: Invalid trigger mode.", status), status);
}

TEST(RTURoutesOnTheWire, DeviceFailureIsAnOrangeIOException)
{
    K52_SKIP_ON_REAL_KERNEL("fault injection");
    DaemonProcess daemon({{"emulated-fault-io", std::string("/dev/k52rtu")}});
    ControlClient client("127.0.0.1", daemon.controlPort());
    auto ack = client.command("GetRTUFPS");
    EXPECT_EQ(ack.color, orange);
    EXPECT_EQ(ack.status(), "ErrorIOException");
    EXPECT_EQ(ack.reply().rfind("GetRTUFPS: ", 0), 0u) << ack.reply();
}

} // namespace
