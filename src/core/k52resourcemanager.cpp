#include "core/k52resourcemanager.h"

#include "utils/config/configparser.h"
#include "utils/log/logrecord.h"
#include "utils/log/printfunc.h"
#include "utils/base/exceptions.h"
#include "utils/container/xmlblockserializer.h"
#include "utils/io/staticframes.h"

#include <tinyxml2.h>

#include <fcntl.h>

#include <algorithm>

#include <stdexcept>

namespace k52app {

const std::function<void(const std::string&)> printFunc = [](const std::string& text) {
    K52_LOG(debug) << text;
};

namespace {

constexpr uint32_t groupCount = 14;

const std::string& value(const ConfigParser& config, const std::string& key)
{
    return config.values.at(key);
}

int number(const ConfigParser& config, const std::string& key)
{
    return std::stoi(value(config, key));
}

} // namespace

K52ResourceManager::K52ResourceManager(const ConfigParser& config)
{
    // Only configuration lookups and conversions are reported as a missing configuration;
    // device failures leave the constructor as they are.
    try {
        containers_ = std::make_unique<ContainerManager>(value(config, "container-path"));
        buildDevices(config);
        for (uint32_t group = 0; group < groupCount; ++group)
            mutexes_.try_emplace(static_cast<K52ResourceGroups>(group));
        K52_LOG(info) << "K52ResourceManager: mutexes initialized.";
        initStaticFrames(config);
        initRTU(config);
        initAutoFocus(config);
        initIllumination(config);
        initIMX(config);
        initV4L2(config);
        initSmartSensor(config);
        initToF(config);
        initSockets(config);
    } catch (const std::logic_error& e) {
        K52_LOG(err) << "K52ResourceManager: config not found." << e.what();
        throw utils::UtilsOutOfRangeError(e.what());
    }
    K52_LOG(info) << "K52ResourceManager Initialized.";
}

K52ResourceManager::~K52ResourceManager() = default;

void K52ResourceManager::buildDevices(const ConfigParser& config)
{
    rtu_ = std::make_unique<utils::IORTU>(value(config, "rtu-path"));
    imx_ = std::make_unique<utils::IOIMX>(value(config, "image-sensor-path"), O_RDWR);
    v4l2_ = std::make_unique<utils::IOV4L2>(value(config, "v4l2-path"), O_RDWR);
    autoFocus_ = std::make_unique<utils::IOAutoFocus>(value(config, "autofocus-path"));
    illumination_ = std::make_unique<utils::IOIllumination>(value(config, "illumination-path"));
    rtuI2C_ = std::make_unique<utils::IOI2CRTU>(value(config, "rtu-i2c-line"),
                                                static_cast<uint8_t>(number(config, "rtu-i2c-address")),
                                                O_RDWR);
    button_ = std::make_unique<utils::IOGPIO>(number(config, "button-line"), 0, 0, 3,
                                              value(config, "button-chip"));
    openCL_ = std::make_unique<utils::IOOpenCL>();
    smartSensor_ = std::make_unique<utils::IOSmartSensor>(
        value(config, "smart-sensor-i2c-line"),
        static_cast<uint8_t>(number(config, "smart-sensor-i2c-address")), O_RDWR,
        number(config, "smart-sensor-irq-pin"), uint16_t{100}, value(config, "smart-sensor-fw-path"),
        printFunc);
    tof_ = std::make_unique<utils::IOToF>(value(config, "tof-path"), O_RDWR);
}

HeldGroups::HeldGroups(K52ResourceManager& resources, std::vector<K52ResourceGroups> groups)
    : resources_(resources), groups_(std::move(groups))
{
    locks_.reserve(groups_.size());
    for (const auto group : groups_)
        locks_.emplace_back(resources_.getMutex(group));
}

bool HeldGroups::holds(K52ResourceGroups group) const
{
    return std::find(groups_.begin(), groups_.end(), group) != groups_.end();
}

std::mutex& K52ResourceManager::getMutex(const K52ResourceGroups& group)
{
    auto it = mutexes_.find(group);
    if (it == mutexes_.end())
        throw utils::UtilsRuntimeError("K52ResourceManager: No such resource group: " +
                                       std::to_string(static_cast<uint32_t>(group)));
    return it->second;
}

void K52ResourceManager::initStaticFrames(const ConfigParser& config)
{
    if (!config.values.count("container-path")) {
        K52_LOG(info) << "K52ResourceManager: 'container-path' not set. --skipping resource";
        return;
    }
    try {
        utils::StaticFrames loaded(value(config, "static-files"));
        staticFrames_.clear();
        staticFrames_ = loaded.takeFrames();
        std::lock_guard lock(getMutex(K52ResourceGroups::STATIC_FRAMES));
        utils::XMLBlockSerializer serializer(containers_->xmlBlock(), "device");
        for (const auto& [name, image] : staticFrames_) {
            const std::string element = utils::XMLBlockSerializer::elementName(name);
            serializer.findOrCreateElement("/factory/static-files/" + element);
            K52_LOG(info) << "K52ResourceManager: found static-file : " << name
                          << (element == name ? "" : " (listed as " + element + ")");
        }
        serializer.commit();
        containers_->updateChecksum(K52Container::XML);
        K52_LOG(info) << "K52ResourceManager: static files initialized.";
    } catch (const std::exception& e) {
        // Static frames are optional: without them (or without the key) the daemon still starts.
        K52_LOG(info) << "K52ResourceManager: " << e.what();
    }
}

void K52ResourceManager::initRTU(const ConfigParser& config)
{
    try {
        rtu_->open();
        K52_LOG(debug) << "RTU opened at " << value(config, "rtu-path");
        std::string model = imx_->getSensorModel();
        K52_LOG(info) << "Detected image sensor type: " << model;
        rtu_->setImageSensor(model == "imx296" ? utils::IORTUCameraMode::imx296
                                               : utils::IORTUCameraMode::imx567);
        K52_LOG(info) << "RTU initialized with CMOS chip '" << model << "'";
    } catch (const utils::UtilsError& e) {
        K52_LOG(err) << "K52ResourceManager: RTU initialization failed: " << e.what();
    }
}

void K52ResourceManager::initAutoFocus(const ConfigParser& /*config*/)
{
    try {
        autoFocus_->open();
        K52_LOG(info) << "K52ResourceManager: AutoFocus device initialized.";
    } catch (const utils::UtilsError&) {
        K52_LOG(err) << "K52ResourceManager: No autofocus device configured. check your configuration";
    }
}

void K52ResourceManager::initIllumination(const ConfigParser& /*config*/)
{
    try {
        illumination_->open();
        K52_LOG(info) << "K52ResourceManager: Illumination device initialized.";
    } catch (const utils::UtilsError&) {
        // The illumination module reports with the autofocus wording; clients match on it.
        K52_LOG(err) << "K52ResourceManager: No autofocus device configured. check your configuration";
    }
}

void K52ResourceManager::initIMX(const ConfigParser& /*config*/) { K52_LOG(info) << "IMX initialized."; }

void K52ResourceManager::initV4L2(const ConfigParser& config)
{
    using utils::XMLBlockSerializer;
    if (!config.values.count("v4l2-path"))
        throw utils::UtilsError("K52ResourceManager: 'v4l2-path' not set in configuration.");

    XMLBlockSerializer serializer(containers_->xmlBlock(), "device");
    const std::string base = "/factory/v4l2";

    v4l2_capability caps = v4l2_->getCapabilities();
    serializer.insert(base + "/capabilities/capabilities", uint32_t{caps.capabilities}, true);
    serializer.insert(base + "/capabilities/device_caps", uint32_t{caps.device_caps}, true);
    serializer.insert(base + "/capabilities/card", caps.card, true);
    serializer.insert(base + "/capabilities/bus_info", caps.bus_info, true);
    std::string driver(reinterpret_cast<const char*>(caps.driver),
                       strnlen(reinterpret_cast<const char*>(caps.driver), sizeof caps.driver));
    serializer.findOrCreateElement(base + "/capabilities/driver")->SetText(driver.c_str());
    serializer.insert(base + "/capabilities/version", uint32_t{caps.version}, true);
    K52_LOG(info) << "V4L2 Driver '" << driver << "' loaded.";

    auto formats = v4l2_->getCaptureResolutions();
    serializer.insert(base + "/formats/count", static_cast<uint32_t>(formats.size()), true);
    for (const auto& format : formats) {
        std::string fourcc = utils::IOV4L2::fourccToString(format.description.pixelformat);
        std::string path = base + "/formats/" + XMLBlockSerializer::elementName(fourcc);
        serializer.insert(path + "/description", format.description.description, true);
        serializer.insert(path + "/fourcc", uint32_t{format.description.pixelformat}, true);
        for (size_t j = 0; j < format.sizes.size(); ++j) {
            std::string index = path + "/resolutions/index-" + std::to_string(j);
            serializer.insert(index + "/width", uint32_t{format.sizes[j].width}, true);
            serializer.insert(index + "/height", uint32_t{format.sizes[j].height}, true);
        }
        K52_LOG(info) << "V4L2 Format '" << fourcc << "' loaded.";
    }

    const std::string controlsPath = "/factory/v4l2/controls";
    auto controls = v4l2_->getControls();
    serializer.insert(controlsPath + "/count", static_cast<uint32_t>(controls.size()), true);
    for (const auto& [id, control] : controls) {
        const v4l2_queryctrl& query = control.query;
        std::string path = controlsPath + "/id-" + std::to_string(id);
        serializer.insert(path + "/name", query.name, true);
        serializer.findOrCreateElement(path + "/type-enum")
            ->SetText(utils::IOV4L2::getControlType(query.type).c_str());
        serializer.findOrCreateElement(path + "/category")->SetText(control.category.c_str());
        serializer.insert(path + "/default", int32_t{query.default_value}, true);
        serializer.insert(path + "/min", int32_t{query.minimum}, true);
        serializer.insert(path + "/max", int32_t{query.maximum}, true);
        serializer.insert(path + "/step", int32_t{query.step}, true);
        serializer.insert(path + "/type", uint32_t{query.type}, true);
        for (const auto& entry : control.menu) {
            std::string item = path + "/menu/index-" + std::to_string(entry.index);
            // An integer menu's entry holds a 64-bit value where other menus hold the name.
            if (query.type == V4L2_CTRL_TYPE_INTEGER_MENU)
                serializer.insert(item + "/name", int64_t{entry.value}, true);
            else
                serializer.insert(item + "/name", entry.name, true);
            serializer.insert(item + "/reserved", uint32_t{entry.reserved}, true);
        }
        K52_LOG(info) << "V4L2 Control '" << XMLBlockSerializer::to_string(query.name) << "' loaded.";
    }
    serializer.commit();
    containers_->updateChecksum(K52Container::XML);
    K52_LOG(info) << "K52ResourceManager: V4L2 initialized.";
}

void K52ResourceManager::initSmartSensor(const ConfigParser& config)
{
    const std::string& firmware = value(config, "smart-sensor-fw-path");
    K52_LOG(info) << "SmartSensor booting '" << firmware << "' to 0x"
                  << value(config, "smart-sensor-i2c-address") << "@"
                  << value(config, "smart-sensor-i2c-line") << "'.";
    try {
        smartSensor_->softReset();
        smartSensor_->registerCallBacks();
        smartSensor_->uploadFirmwareToRam(firmware);
        smartSensor_->boot();
        K52_LOG(info) << "SmartSensor initialized.";
    } catch (const utils::UtilsError& e) {
        K52_LOG(err) << "K52ResourceManager: SmartSensor initialization failed: " << e.what();
    }
}

void K52ResourceManager::initToF(const ConfigParser& /*config*/)
{
    try {
        tof_->init_tof_sensor();
        tof_->apply_calibration();
        K52_LOG(info) << "ToF initialized.";
    } catch (const utils::UtilsError& e) {
        K52_LOG(err) << "K52ResourceManager: ToF initialization failed: " << e.what();
    }
}

void K52ResourceManager::initSockets(const ConfigParser& config)
{
    const auto& values = config.values;
    std::string address = values.count("socket-addr") ? values.at("socket-addr") : "0.0.0.0";
    auto port = [&](const char* key) {
        return values.count(key) ? static_cast<uint16_t>(number(config, key)) : uint16_t{0};
    };
    uint16_t ctrlPort = port("socket-ctrl");
    uint16_t streamPort = port("socket-stream");

    if (ctrlPort == 0 && streamPort == 0) {
        controlSocket_ = utils::TCPSocket(std::string("ctrl"));
        streamSocket_ = utils::TCPSocket(std::string("stream"));
        K52_LOG(info) << "K52ResourceManager: Using systemd for handling sockets.";
        return;
    }
    if (ctrlPort == 0 || streamPort == 0 || ctrlPort == streamPort)
        throw utils::UtilsOutOfRangeError(
            "K52ResourceManager: 'socket-ctrl' or 'socket-ctrl' have invalid values");

    controlSocket_ = utils::TCPSocket(address, ctrlPort);
    controlSocket_.bindAndListen(2);
    K52_LOG(info) << "K52ResourceManager: socket-ctrl initialized.";
    streamSocket_ = utils::TCPSocket(address, streamPort);
    streamSocket_.bindAndListen(2);
    K52_LOG(info) << "K52ResourceManager: socket-stream initialized.";
}

} // namespace k52app
