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
#include <string>

namespace k52app {

class ConfigParser;

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

} // namespace k52app
