#include "utils/io/iortudataadapter.h"

#include <tinyxml2.h>

#include <algorithm>
#include <iterator>
#include <string>

namespace utils {

void IORTUDataAdapter::load(const IORTU& rtu)
{
    IORTUData next{};
    next.state = rtu.getState();
    const IORTURevision r = rtu.getRevision();
    const uint32_t revision[] = {r.revisionMajor, r.revisionMinor, r.week, r.year, r.number, r.patch};
    std::copy(std::begin(revision), std::end(revision), next.revision);
    next.deviceState = static_cast<uint32_t>(rtu.getDeviceState());
    next.statusLed = rtu.getStatusLED();
    next.imageSensor = static_cast<uint32_t>(rtu.getImageSensor());
    next.exposureTimeUs = rtu.getExposureTime();
    next.exposureProhibitedTimeUs = rtu.getExposureProhibitedTime();
    next.exposureOffsetUs = static_cast<int32_t>(rtu.getExposureOffset());
    next.framesPerSecond = rtu.getFPS();
    next.triggerMode = static_cast<uint32_t>(rtu.getAutoTrigger());
    next.acquisitionEnabled = rtu.getAcquisitionEnabled();
    next.analogOutputEnabled = rtu.getAnalogOutputState();
    next.analogOutputCurrent = rtu.getAnalogOutputType();
    next.analogOutputMillivolts = rtu.getAnalogOutputVoltage();
    next.analogOutputMicroamperes = rtu.getAnalogOutputCurrent();
    next.heartbeats = rtu.getHeartbeatCount();
    next.internalTemperatureCelsius = rtu.getInternalTemperature();
    for (unsigned pin = 0; pin < IORTU::pinCount; ++pin) {
        rtu_pin_config_t config;
        config.setPin(pin);
        rtu.getIOConfig(config);
        for (size_t i = 0; i < rtu_pin_config_t::count; ++i)
            next.pins[pin].config[i] = config.entries[i].value;
        next.pins[pin].value = rtu.getIOValue(pin);
    }
    data = next; // only a complete reading replaces the record
}

void IORTUDataAdapter::toXml(tinyxml2::XMLElement* element) const
{
    element->DeleteChildren();
    auto add = [element](const char* name, auto value) {
        element->InsertNewChildElement(name)->SetText(value);
    };
    add("state", data.state);
    add("revision", (std::to_string(data.revision[0]) + "." + std::to_string(data.revision[1])).c_str());
    add("revisionWeek", data.revision[2]);
    add("revisionYear", data.revision[3]);
    add("revisionNumber", data.revision[4]);
    add("revisionPatch", data.revision[5]);
    add("deviceState", data.deviceState);
    add("statusLED", data.statusLed);
    add("imageSensor", data.imageSensor == 0 ? "imx296" : "imx567");
    add("exposureTime", data.exposureTimeUs);
    add("exposureProhibitedTime", data.exposureProhibitedTimeUs);
    add("exposureOffset", data.exposureOffsetUs);
    add("fps", data.framesPerSecond);
    add("triggerMode", data.triggerMode == 0 ? "manual" : "continuous");
    add("acquisition", data.acquisitionEnabled);
    add("analogOutputState", data.analogOutputEnabled);
    add("analogOutputType", data.analogOutputCurrent ? "current" : "voltage");
    add("analogOutputVoltage", data.analogOutputMillivolts);
    add("analogOutputCurrent", data.analogOutputMicroamperes);
    add("heartbeats", data.heartbeats);
    add("internalTemperature", data.internalTemperatureCelsius);

    static constexpr const char* configNames[rtu_pin_config_t::count] = {
        "type", "config", "func", "invert", "onDelayEnable", "offDelayEnable", "pulseEnable",
        "onDelayTime", "offDelayTime", "pulseTime"};
    for (unsigned pin = 0; pin < IORTU::pinCount; ++pin) {
        tinyxml2::XMLElement* io = element->InsertNewChildElement("io");
        io->SetAttribute("pin", pin);
        for (size_t i = 0; i < rtu_pin_config_t::count; ++i)
            io->SetAttribute(configNames[i], data.pins[pin].config[i]);
        io->SetAttribute("value", data.pins[pin].value);
    }
}

} // namespace utils
