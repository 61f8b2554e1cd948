#include "core/route/families.h"
#include "utils/io/ioi2cfile.h"

#include <fcntl.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace k52app {

namespace {

const std::string accessFailed = ": Failed to set Address.";

using RegisterAccess = int (*)(const utils::IOI2CFile&, uint8_t offset, uint8_t& value);

// One temporary bus file per call ("/dev/i2c-" + the bus argument as given), so I2C commands
// on different workers do not wait for each other. Address, offset and value travel as single
// bytes: a number that does not fit one is refused like an address the bus rejects, rather
// than wrapped onto another device or register.
RouteReply onRegister(RouteCall& call, bool takesValue, RegisterAccess access)
{
    const std::string device = "/dev/i2c-" + call.text(0);
    const std::optional<uint8_t> address = call.byte(1);
    const std::optional<uint8_t> offset = call.byte(2);
    const std::optional<uint8_t> value = takesValue ? call.byte(3) : uint8_t{0};
    if (!address || !offset || !value)
        return call.refuse(accessFailed);
    const utils::IOI2CFile bus(device, *address, O_RDWR);
    uint8_t result = *value;
    if (access(bus, *offset, result) != 0)
        return call.refuse(accessFailed);
    // Success drops the "Failed" prefix: a plain "register OFFSET = VALUE" in decimal.
    return {"OK", "register " + std::to_string(*offset) + " = " + std::to_string(result)};
}

// Both routes hold no group and answer "Failed" plus a reason when the access fails.
Route i2c(std::string name, std::string help, std::vector<utils::SpinnerArgumentMetaData> arguments,
          bool takesValue, RegisterAccess access)
{
    return {std::move(name), std::move(help), std::move(arguments), {}, "Failed", "Error",
            Converts::deviceErrors, {},
            [takesValue, access](RouteCall& call) { return onRegister(call, takesValue, access); }};
}

} // namespace

std::vector<Route> i2cRoutes(const RouteServices&)
{
    const std::vector<utils::SpinnerArgumentMetaData> registerAddress = {
        utils::numericalArgument("i2c_bus", "the bus number", 2, 4),
        utils::numericalArgument("i2c_address", "the device address", 1, 255),
        utils::numericalArgument("register_offset", "the desiered register offset", 1, 255),
    };
    auto withValue = registerAddress;
    withValue.push_back(utils::numericalArgument("register_value", "the desiered register value", 1, 255));

    return {
        i2c("GetI2C", "Gets the value of the register at the given address of the given i2c bus at the given offset.",
            registerAddress, false,
            [](const utils::IOI2CFile& bus, uint8_t offset, uint8_t& value) { return bus.readRegister(offset, value); }),
        i2c("SetI2C", "Sets the value of the register at the given address of the given i2c bus at the given offset.",
            withValue, true,
            [](const utils::IOI2CFile& bus, uint8_t offset, uint8_t& value) { return bus.writeRegister(offset, value); }),
    };
}

} // namespace k52app
