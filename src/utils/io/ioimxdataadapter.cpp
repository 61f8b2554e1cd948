#include "utils/io/ioimxdataadapter.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

namespace utils {

void IOIMXDataAdapter::load(const IOIMX& imx)
{
    IOIMXData next{};
    const std::string model = imx.getSensorModel();
    std::copy_n(model.begin(), std::min(model.size(), sizeof next.model - 1), next.model);
    next.sensorType = imx.getSensorType();
    next.exposureUs = imx.getExposure();
    next.triggerMode = imx.getTriggerMode();
    next.halfScanMode = imx.getHalfScanMode();
    std::tie(next.roiX, next.roiY) = imx.getROIXYOffset();
    next.pixelWidth = imx.getPixelWidth();
    next.pixelHeight = imx.getPixelHeight();
    data = next; // only a complete reading replaces the record
}

void IOIMXDataAdapter::toXml(tinyxml2::XMLElement* element) const
{
    element->DeleteChildren();
    auto add = [element](const char* name, auto value) {
        element->InsertNewChildElement(name)->SetText(value);
    };
    add("model", std::string(data.model, strnlen(data.model, sizeof data.model)).c_str());
    add("sensorType", data.sensorType ? "monochrome" : "color");
    add("exposure", data.exposureUs);
    add("triggerMode", data.triggerMode);
    add("halfScanMode", data.halfScanMode);
    add("roiX", data.roiX);
    add("roiY", data.roiY);
    add("width", data.pixelWidth);
    add("height", data.pixelHeight);
}

} // namespace utils
