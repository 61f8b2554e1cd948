#pragma once

#include "utils/io/iortu.h"

#include <cstdint>
#include <type_traits>

namespace tinyxml2 {
class XMLElement;
}

namespace utils {

// What the RTU reports, as other processes read it from the general container.
struct IORTUData {
    struct Pin {
        uint32_t config[rtu_pin_config_t::count]; // rtu_pin_config_t order
        uint32_t value;
    };

    uint32_t state;     // IORTU::state* bits
    uint32_t revision[6]; // major, minor, week, year, number, patch
    uint32_t deviceState;
    uint32_t statusLed;
    uint32_t imageSensor; // IORTUCameraMode
    uint32_t exposureTimeUs;
    uint32_t exposureProhibitedTimeUs;
    int32_t exposureOffsetUs;
    uint32_t framesPerSecond;
    uint32_t triggerMode; // IORTUTriggerMode
    uint32_t acquisitionEnabled;
    uint32_t analogOutputEnabled;
    uint32_t analogOutputCurrent; // 1 current, 0 voltage
    uint32_t analogOutputMillivolts;
    uint32_t analogOutputMicroamperes;
    uint32_t heartbeats;
    float internalTemperatureCelsius;
    Pin pins[IORTU::pinCount];
};

// The RTU's record in the general container, laid out in place in the file.
class IORTUDataAdapter {
public:
    // Reads the unit's state; throws IOError when the unit cannot be read.
    void load(const IORTU& rtu);
    // Replaces the children of `element` with one child element per field.
    void toXml(tinyxml2::XMLElement* element) const;

    IORTUData data;
    uint8_t reserved[2136 - sizeof(IORTUData)]; // room for later fields without a new layout
};
static_assert(sizeof(IORTUDataAdapter) == 2136);
static_assert(std::is_standard_layout_v<IORTUDataAdapter>);

} // namespace utils
