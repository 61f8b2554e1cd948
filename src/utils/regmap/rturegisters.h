#pragma once

#include <cstdint>

// The RTU's register file on its device node (docs/hardware/rtu.md): 32-bit little-endian
// registers below 0x100, one per request; the pin blocks above are tables of 32-bit words.
namespace utils::rtu_registers {

constexpr uint32_t status = 0x00; // bits below
constexpr uint32_t statusReady = 1u << 0;
constexpr uint32_t statusAcquiring = 1u << 1;
constexpr uint32_t statusContinuous = 1u << 2;
constexpr uint32_t statusAnalogOutput = 1u << 3;
constexpr uint32_t statusHeartbeatAlive = 1u << 4; // a heartbeat in the last 10 s
constexpr uint32_t revisionMajor = 0x04; // then minor, week, year, number, patch
constexpr uint32_t revisionMinor = 0x08;
constexpr uint32_t revisionWeek = 0x0c;
constexpr uint32_t revisionYear = 0x10;
constexpr uint32_t revisionNumber = 0x14;
constexpr uint32_t revisionPatch = 0x18;
constexpr uint32_t internalTemperature = 0x1c; // signed, millidegrees Celsius
constexpr uint32_t heartbeat = 0x20;           // read: count; write: one heartbeat
constexpr uint32_t deviceState = 0x24;         // 1..6
constexpr uint32_t statusLed = 0x28;
constexpr uint32_t imageSensor = 0x2c;
constexpr uint32_t exposureTime = 0x30;           // microseconds
constexpr uint32_t exposureProhibitedTime = 0x34; // microseconds
constexpr uint32_t exposureOffset = 0x38;         // signed microseconds
constexpr uint32_t framesPerSecond = 0x3c;
constexpr uint32_t triggerMode = 0x40;  // 0 manual, 1 continuous
constexpr uint32_t manualTrigger = 0x44; // write 1: one exposure; read: exposures fired
constexpr uint32_t acquisitionEnable = 0x48;
constexpr uint32_t analogOutputState = 0x4c; // 0/1
constexpr uint32_t analogOutputType = 0x50;  // 0 voltage, 1 current
constexpr uint32_t analogOutputVoltage = 0x54;
constexpr uint32_t analogOutputCurrent = 0x58;
constexpr uint32_t analogOutputPWMDuty = 0x5c;
constexpr uint32_t analogOutputPWMPeriod = 0x60;

// Pin n's block: the ten configuration words in rtu_pin_config_t order, then its value.
constexpr uint32_t pinBase = 0x100;
constexpr uint32_t pinStride = 0x40;
constexpr uint32_t pinWords = 11;
constexpr uint32_t pinValueWord = 10;
constexpr uint32_t pinBlock(uint32_t pin) { return pinBase + pin * pinStride; }

// The analog output's two sysfs GPIO lines, next to the unit on the board. Both are active-low:
// 0 enables the output, and 0 on the type line selects current.
inline constexpr const char* analogOutputEnableLinePath = "/sys/class/gpio/gpio431/value";
inline constexpr const char* analogOutputTypeLinePath = "/sys/class/gpio/gpio479/value";

} // namespace utils::rtu_registers
