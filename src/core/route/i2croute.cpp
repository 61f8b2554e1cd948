#include "core/commandrouter.h"

#include "utils/base/strings.h"
#include "utils/io/ioi2cfile.h"

#include <fcntl.h>

#include <optional>

namespace k52app {

namespace {

using Arguments = std::vector<std::string>;

// Both routes answer "Failed" plus a reason when the register access fails, and a plain
// "register OFFSET = VALUE" (decimal) when it works.
const RouteReplyBuilder i2cReply("Error", "Failed");
const std::string accessFailed = ": Failed to set Address.";

// Address, offset and value travel as single bytes. A number that does not fit one is refused
// like an address the bus rejects, rather than wrapped onto another device or register.
std::optional<uint8_t> byteArgument(const Arguments& arguments, size_t position)
{
    int value = std::stoi(arguments.at(position));
    if (value < 0 || value > 0xFF)
        return std::nullopt;
    return static_cast<uint8_t>(value);
}

std::string registerText(uint8_t offset, uint8_t value)
{
    return "register " + std::to_string(offset) + " = " + std::to_string(value);
}

// One temporary bus file per call ("/dev/i2c-" + the bus argument as given), so I2C commands
// on different workers do not wait for each other.
template <typename Access>
RouteReply onRegister(const Arguments& arguments, size_t valueCount, Access access)
{
    return i2cReply.guard([&]() -> RouteReply {
        const std::string device = "/dev/i2c-" + arguments.at(0);
        std::optional<uint8_t> address = byteArgument(arguments, 1);
        std::optional<uint8_t> offset = byteArgument(arguments, 2);
        std::optional<uint8_t> value = valueCount ? byteArgument(arguments, 3) : uint8_t{0};
        if (!address || !offset || !value)
            return i2cReply.refuse(accessFailed);
        utils::IOI2CFile bus(device, *address, O_RDWR);
        uint8_t result = *value;
        if (access(bus, *offset, result) != 0)
            return i2cReply.refuse(accessFailed);
        return {"OK", registerText(*offset, result)};
    });
}

RouteReply getI2C(const Arguments& arguments)
{
    return onRegister(arguments, 0, [](const utils::IOI2CFile& bus, uint8_t offset, uint8_t& value) {
        return bus.readRegister(offset, value);
    });
}

RouteReply setI2C(const Arguments& arguments)
{
    return onRegister(arguments, 1, [](const utils::IOI2CFile& bus, uint8_t offset, uint8_t& value) {
        return bus.writeRegister(offset, value);
    });
}

} // namespace

void K52CommandRouter::registerI2CCommands()
{
    const std::vector<utils::SpinnerArgumentMetaData> registerAddress = {
        utils::numericalArgument("i2c_bus", "the bus number", 2, 4),
        utils::numericalArgument("i2c_address", "the device address", 1, 255),
        utils::numericalArgument("register_offset", "the desiered register offset", 1, 255),
    };
    auto withValue = registerAddress;
    withValue.push_back(utils::numericalArgument("register_value", "the desiered register value", 1, 255));

    registerRoutes({
        {"GetI2C",
         "Gets the value of the register at the given address of the given i2c bus at the given offset.",
         {registerAddress}, getI2C},
        {"SetI2C",
         "Sets the value of the register at the given address of the given i2c bus at the given offset.",
         {withValue}, setI2C},
    });
}

} // namespace k52app
