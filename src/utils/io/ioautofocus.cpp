#include "utils/io/ioautofocus.h"

#include "utils/base/exceptions.h"

namespace utils {

using namespace autofocus_registers;

namespace {

// The longest operation (a sweep) takes about 50 ms.
constexpr auto idleTimeout = std::chrono::milliseconds(500);

} // namespace

IOAutoFocus::IOAutoFocus(std::string path, int flags) : IORegisterFile(std::move(path), flags) {}

void IOAutoFocus::waitUntilIdle(const char* what) const
{
    waitForBits(Register::status, "STATUS", Status::busy, 0, idleTimeout, what);
}

void IOAutoFocus::requireAtMost(const char* name, unsigned value, unsigned max) const
{
    if (value > max)
        throw UtilsRuntimeError("AutoFocus '" + path() + "': " + name + " " +
                                std::to_string(value) + " is out of range 0.." +
                                std::to_string(max) + ".");
}

void IOAutoFocus::setPosition(unsigned position)
{
    requireAtMost("position", position, getPositionMax());
    waitUntilIdle("the module to become idle");
    writeRegister(Register::position, position, "POSITION");
    waitUntilIdle("the lens to reach its position");
}

unsigned IOAutoFocus::getPosition() const
{
    return readRegister(Register::position, "POSITION");
}

unsigned IOAutoFocus::getPositionMax() const
{
    return readRegister(Register::positionMax, "POSITION_MAX");
}

void IOAutoFocus::setLEDMode(unsigned mode)
{
    requireAtMost("LED mode", mode, 1);
    writeRegister(Register::ledMode, mode, "LED_MODE");
}

void IOAutoFocus::setLEDState(unsigned state)
{
    requireAtMost("LED state", state, 1);
    writeRegister(Register::ledState, state, "LED_STATE");
}

void IOAutoFocus::reset()
{
    waitUntilIdle("the module to become idle");
    writeRegister(Register::command, static_cast<uint32_t>(Command::reset), "COMMAND");
    waitUntilIdle("the reset to finish");
}

void IOAutoFocus::sweepFrequency()
{
    waitUntilIdle("the module to become idle");
    writeRegister(Register::command, static_cast<uint32_t>(Command::sweep), "COMMAND");
}

unsigned IOAutoFocus::getFrequency() const
{
    return readRegister(Register::frequency, "FREQUENCY");
}

} // namespace utils
