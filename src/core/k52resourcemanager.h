#pragma once

#include "core/container/containermanager.h"
#include "core/resourcegroups.h"
#include "utils/io/imageserializer.h"
#include "utils/io/ioautofocus.h"
#include "utils/io/iogpio.h"
#include "utils/io/ioi2crtu.h"
#include "utils/io/ioillumination.h"
#include "utils/io/ioimx.h"
#include "utils/io/ioopencl.h"
#include "utils/io/iortu.h"
#include "utils/io/iosmartsensor.h"
#include "utils/io/iotof.h"
#include "utils/io/iov4l2.h"
#include "utils/net/tcpsocket.h"

#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace k52app {

class ConfigParser;
class K52ResourceManager;

// The group that guards a device, and where the resource manager keeps it. Only devices that
// belong to a group have one: a guard hands out nothing that runs unguarded.
template <typename Device>
struct DeviceGroup;

// The groups a route holds, locked in the order given; the devices of
// those groups are reachable only through it, so no device is used without its group.
class HeldGroups {
public:
    HeldGroups(K52ResourceManager& resources, std::vector<K52ResourceGroups> groups);
    HeldGroups(const HeldGroups&) = delete;
    HeldGroups& operator=(const HeldGroups&) = delete;

    // Throws std::logic_error when the device's group is not among the held ones: a route
    // table that forgot a group fails at its first call instead of racing.
    template <typename Device>
    Device& device();

private:
    bool holds(K52ResourceGroups group) const;

    K52ResourceManager& resources_;
    std::vector<K52ResourceGroups> groups_;
    std::vector<std::unique_lock<std::mutex>> locks_;
};

// One device together with its group's lock.
template <typename Device>
class LockedDevice {
public:
    LockedDevice(std::mutex& group, Device& device) : lock_(group), device_(device) {}
    Device* operator->() { return &device_; }
    Device& device() { return device_; }

private:
    std::lock_guard<std::mutex> lock_;
    Device& device_;
};

// Owns every hardware handle, the two listening sockets and the containers, and gives out one
// mutex per resource group. Members are built in declaration order and released in reverse.
class K52ResourceManager {
public:
    using StaticFrameMap = std::map<std::string, std::unique_ptr<utils::ImageSerializer::ImageData>>;

    explicit K52ResourceManager(const ConfigParser& config);
    ~K52ResourceManager();
    K52ResourceManager(const K52ResourceManager&) = delete;
    K52ResourceManager& operator=(const K52ResourceManager&) = delete;

    // Throws UtilsRuntimeError for a value outside the fourteen groups.
    std::mutex& getMutex(const K52ResourceGroups& group);

    // The device with its group held for the guard's life.
    template <typename Device>
    LockedDevice<Device> lock()
    {
        return {getMutex(DeviceGroup<Device>::group), (this->*DeviceGroup<Device>::get)()};
    }
    HeldGroups hold(std::vector<K52ResourceGroups> groups) { return {*this, std::move(groups)}; }

    ContainerManager& containers() { return *containers_; }
    const StaticFrameMap& staticFrames() const { return staticFrames_; }
    utils::TCPSocket& controlSocket() { return controlSocket_; }
    utils::TCPSocket& streamSocket() { return streamSocket_; }
    utils::IORTU& rtu() { return *rtu_; }
    utils::IOIMX& imx() { return *imx_; }
    utils::IOV4L2& v4l2() { return *v4l2_; }
    utils::IOAutoFocus& autoFocus() { return *autoFocus_; }
    utils::IOIllumination& illumination() { return *illumination_; }
    utils::IOI2CRTU& rtuI2C() { return *rtuI2C_; }
    utils::IOGPIO& button() { return *button_; }
    utils::IOOpenCL& openCL() { return *openCL_; }
    utils::IOSmartSensor& smartSensor() { return *smartSensor_; }
    utils::IOToF& tof() { return *tof_; }

private:
    void buildDevices(const ConfigParser& config);
    void initStaticFrames(const ConfigParser& config);
    void initRTU(const ConfigParser& config);
    void initAutoFocus(const ConfigParser& config);
    void initIllumination(const ConfigParser& config);
    void initIMX(const ConfigParser& config);
    void initV4L2(const ConfigParser& config);
    void initSmartSensor(const ConfigParser& config);
    void initToF(const ConfigParser& config);
    void initSockets(const ConfigParser& config);

    std::map<K52ResourceGroups, std::mutex> mutexes_;
    std::unique_ptr<ContainerManager> containers_;
    StaticFrameMap staticFrames_;
    utils::TCPSocket controlSocket_;
    utils::TCPSocket streamSocket_;
    std::unique_ptr<utils::IORTU> rtu_;
    std::unique_ptr<utils::IOIMX> imx_;
    std::unique_ptr<utils::IOV4L2> v4l2_;
    std::unique_ptr<utils::IOAutoFocus> autoFocus_;
    std::unique_ptr<utils::IOIllumination> illumination_;
    std::unique_ptr<utils::IOI2CRTU> rtuI2C_;
    std::unique_ptr<utils::IOGPIO> button_;
    std::unique_ptr<utils::IOOpenCL> openCL_;
    std::unique_ptr<utils::IOSmartSensor> smartSensor_;
    std::unique_ptr<utils::IOToF> tof_;
};

#define K52_DEVICE_GROUP(Device, Group, accessor)                                           \
    template <>                                                                            \
    struct DeviceGroup<Device> {                                                           \
        static constexpr K52ResourceGroups group = K52ResourceGroups::Group;               \
        static constexpr Device& (K52ResourceManager::*get)() = &K52ResourceManager::accessor; \
    };
K52_DEVICE_GROUP(utils::IOV4L2, V4L2, v4l2)
K52_DEVICE_GROUP(utils::IOIMX, IMX, imx)
K52_DEVICE_GROUP(utils::IORTU, RTU, rtu)
// The bridge talks to the same unit over I2C, so it shares the unit's group.
K52_DEVICE_GROUP(utils::IOI2CRTU, RTU, rtuI2C)
K52_DEVICE_GROUP(utils::IOSmartSensor, SMART_SENSOR, smartSensor)
K52_DEVICE_GROUP(utils::IOAutoFocus, AUTOFOCUS, autoFocus)
K52_DEVICE_GROUP(utils::IOIllumination, ILLUMINATION, illumination)
#undef K52_DEVICE_GROUP

template <typename Device>
Device& HeldGroups::device()
{
    if (!holds(DeviceGroup<Device>::group))
        throw std::logic_error("device used without its resource group");
    return (resources_.*DeviceGroup<Device>::get)();
}

} // namespace k52app
