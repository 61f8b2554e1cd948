#include "core/container/containermanager.h"

#include "utils/log/logrecord.h"
#include "utils/container/xmlblockserializer.h"
#include "utils/io/iocpuinfo.h"
#include "utils/version.h"
#include "utils/wire/containerheader.h"
#include "utils/wire/descriptormessage.h"
#include "utils/wire/framemessage.h"
#include "utils/wire/framing.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace k52app {

namespace {

constexpr const char* defaultPrefix = "/tmp/";
constexpr const char* xmlFileName = "k52XMLContainer";
constexpr const char* generalFileName = "k52generalContainer";
constexpr const char* lockFileName = "k52app.lock";

constexpr const char* programName = "k52app";
constexpr const char* programBrief = "High performance hardware-proxy.";

// The files mapped here are what the descriptor and frame messages send, so their layouts and
// the wire's offsets must agree.
using utils::GeneralContainer;
using utils::GeneralSubContainer;
static_assert(sizeof(utils::XMLContainer) == utils::wire::descriptorSize);
static_assert(GeneralContainer::offsetOf<GeneralSubContainer::frameMetadata>() ==
              utils::wire::frameMetadataIdOffset);
static_assert(GeneralContainer::offsetOf<GeneralSubContainer::frameMetadata>() + 8 ==
              utils::wire::frameWidthOffset);
static_assert(GeneralContainer::offsetOf<GeneralSubContainer::frameData>() == utils::wire::frameDataIdOffset);
static_assert(sizeof(GeneralContainer) == utils::wire::frameOverhead + utils::wire::frameCapacity);

// Creates every directory above the file named by `path`, never the file itself.
void createParentDirectories(const std::string& path)
{
    for (auto slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        if (prefix.empty())
            continue;
        if (::mkdir(prefix.c_str(), 0755) == -1 && errno != EEXIST)
            throw std::runtime_error("Failed to create directory: " + prefix + " - " +
                                     std::strerror(errno));
    }
}

template <typename Payload>
void writeHeader(utils::SubContainer<Payload>& subContainer, uint32_t identifier)
{
    subContainer.identifier = identifier;
    subContainer.size = sizeof subContainer;
}

template <typename Layout>
Layout& mapped(Layout* layout, const char* name)
{
    if (!layout)
        throw std::logic_error(std::string(name) + " is not mapped");
    return *layout;
}

} // namespace

ContainerManager::ContainerManager() : ContainerManager(defaultPrefix) {}

ContainerManager::ContainerManager(const std::string& prefix)
    : lock_(lockContainers(prefix + lockFileName)),
      paths_{{K52Container::XML, prefix + xmlFileName},
             {K52Container::GENERAL, prefix + generalFileName}}
{
    initializeContainers();
}

ContainerManager::~ContainerManager()
{
    cleanupContainers();
}

ContainerManager::ContainerManager(ContainerManager&& other) noexcept
    : lock_(std::move(other.lock_)), xmlContainer_(std::move(other.xmlContainer_)),
      generalContainer_(std::move(other.generalContainer_)),
      paths_(std::exchange(other.paths_, {})), descriptors_(std::exchange(other.descriptors_, {}))
{
}

ContainerManager& ContainerManager::operator=(ContainerManager&& other) noexcept
{
    if (this != &other) {
        discardContainers();
        lock_ = std::move(other.lock_);
        xmlContainer_ = std::move(other.xmlContainer_);
        generalContainer_ = std::move(other.generalContainer_);
        paths_ = std::exchange(other.paths_, {});
        descriptors_ = std::exchange(other.descriptors_, {});
    }
    return *this;
}

void ContainerManager::open()
{
    initializeContainers();
}

void ContainerManager::close()
{
    cleanupContainers();
}

std::string ContainerManager::getPath(K52Container container) const
{
    return paths_.at(container);
}

utils::XMLContainer& ContainerManager::xmlContainer()
{
    return mapped(xmlContainer_.as<utils::XMLContainer>(), "XML container");
}

utils::XmlContainerBlock& ContainerManager::xmlBlock()
{
    return xmlContainer().subContainer<0>().payload;
}

utils::GeneralContainer& ContainerManager::generalContainer()
{
    return mapped(generalContainer_.as<utils::GeneralContainer>(), "General container");
}

utils::SubContainer<utils::IORTUDataAdapter>& ContainerManager::rtuSubContainer()
{
    return generalContainer().subContainer<utils::GeneralSubContainer::rtuData>();
}

utils::SubContainer<utils::IOIMXDataAdapter>& ContainerManager::imxSubContainer()
{
    return generalContainer().subContainer<utils::GeneralSubContainer::imxData>();
}

utils::SubContainer<utils::IOV4L2FrameMetadata>& ContainerManager::frameMetadataSubContainer()
{
    return generalContainer().subContainer<utils::GeneralSubContainer::frameMetadata>();
}

utils::SubContainer<utils::IOV4L2FrameData>& ContainerManager::frameDataSubContainer()
{
    return generalContainer().subContainer<utils::GeneralSubContainer::frameData>();
}

uint32_t ContainerManager::updateChecksum(K52Container container)
{
    if (container == K52Container::XML)
        return xmlContainer().updateChecksum();
    return generalContainer().updateChecksum();
}

// The lock file stays when the manager goes: removing it would let a newcomer lock a fresh
// file while another process still waits on the old one.
utils::FileDescriptor ContainerManager::lockContainers(const std::string& path)
{
    createParentDirectories(path);
    utils::FileDescriptor lock(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644),
                               utils::FileDescriptor::Closer::system);
    if (!lock)
        throw std::runtime_error("Failed to open file: " + path + " - " + std::strerror(errno));
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) == -1) {
        if (errno != EWOULDBLOCK)
            throw std::runtime_error("Failed to lock file: " + path + " - " + std::strerror(errno));
        char holder[16] = {};
        const bool known = ::pread(lock.get(), holder, sizeof holder - 1, 0) > 0;
        throw std::runtime_error("Failed to lock file: " + path + " - the containers are in use by " +
                                 (known ? "process " + std::string(holder) : "another process"));
    }
    // Tells the next one who holds it.
    const std::string pid = std::to_string(::getpid());
    if (::ftruncate(lock.get(), 0) == -1 ||
        ::pwrite(lock.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size()))
        K52_LOG(warn) << "Process id not written to " << path << ": " << std::strerror(errno);
    return lock;
}

void ContainerManager::initializeContainers()
{
    try {
        mapContainers();
        K52_LOG(debug) << "Allocated Containers";
        initializeXMLContainer();
        initializeGeneralContainer();
        K52_LOG(info) << "Initialized Containers.";
    } catch (...) {
        discardContainers();
        throw;
    }
}

void ContainerManager::mapContainers()
{
    descriptors_.clear();
    K52_LOG(debug) << "Mapping Containers.";
    xmlContainer_ = mmapFile<utils::XMLContainer>(paths_.at(K52Container::XML));
    generalContainer_ = mmapFile<utils::GeneralContainer>(paths_.at(K52Container::GENERAL));
    K52_LOG(info) << "Containers mapped successfully.";
}

template <typename Layout>
utils::MappedRegion ContainerManager::mmapFile(const std::string& path)
{
    createParentDirectories(path);
    // A file left by an earlier run is stale: start from a new, zero-filled one. Whatever
    // appears at the path after the removal (a link planted in a shared directory) makes the
    // creation fail rather than redirect it.
    std::remove(path.c_str());
    // Read-only for everyone else; this descriptor keeps write access.
    utils::FileDescriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0444),
                             utils::FileDescriptor::Closer::system);
    if (!fd)
        throw std::runtime_error("Failed to open file: " + path);
    try {
        if (::ftruncate(fd.get(), sizeof(Layout)) == -1)
            throw std::runtime_error("Failed to set file size: " + path);
        void* address =
            ::mmap(nullptr, sizeof(Layout), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        if (address == MAP_FAILED)
            throw std::runtime_error("Failed to mmap file: " + path);
        utils::MappedRegion mapping(address, sizeof(Layout), utils::MappedRegion::Unmapper::system);
        descriptors_.push_back(std::move(fd));
        K52_LOG(debug) << "Mapped: " << path;
        return mapping;
    } catch (...) {
        std::remove(path.c_str());
        throw;
    }
}

void ContainerManager::initializeXMLContainer()
{
    K52_LOG(debug) << "Initializing XML Container.";
    auto& container = xmlContainer();
    container.identifier = utils::wire::magic;
    container.size = sizeof container;
    writeHeader(container.subContainer<0>(), utils::wire::xmlSubContainerId);
    {
        utils::XMLBlockSerializer serializer(container.subContainer<0>().payload, "device");
        const utils::IOCpuInfo cpuInfo;
        // Read once: both times are equal at start.
        const auto now = static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(
                std::chrono::system_clock::now().time_since_epoch())
                .count());
        const std::string startTime = utils::XMLBlockSerializer::to_string(now);
        const std::pair<const char*, std::string> factory[] = {
            {"/factory/name", programName},
            {"/factory/version", utils::programVersion},
            {"/factory/hardware", cpuInfo.getHardware()},
            {"/factory/chipid", cpuInfo.getSerial()},
            {"/factory/start-time", startTime},
            {"/factory/curent-time", startTime},
            {"/factory/brief", programBrief},
        };
        for (const auto& [path, text] : factory)
            serializer.findOrCreateElement(path)->SetText(text.c_str());
        serializer.commit();
    }
    const auto checksum = container.updateChecksum();
    K52_LOG(debug) << "Initialized XML: checksum = " << hex32(checksum);
}

void ContainerManager::initializeGeneralContainer()
{
    auto& container = generalContainer();
    container.identifier = utils::wire::magic;
    container.size = sizeof container;
    auto& rtu = container.subContainer<GeneralSubContainer::rtuData>();
    auto& imx = container.subContainer<GeneralSubContainer::imxData>();
    auto& metadata = container.subContainer<GeneralSubContainer::frameMetadata>();
    auto& frame = container.subContainer<GeneralSubContainer::frameData>();
    writeHeader(rtu, utils::wire::rtuSubContainerId);
    writeHeader(imx, utils::wire::imxSubContainerId);
    writeHeader(metadata, utils::wire::frameMetadataSubContainerId);
    writeHeader(frame, utils::wire::frameDataSubContainerId);
    K52_LOG(info) << "Initialized RTU SubContainer : size = " << rtu.size
                  << ", id = " << hex32(rtu.identifier);
    K52_LOG(info) << "Initialized IMX SubContainer : size = " << imx.size
                  << ", id = " << hex32(imx.identifier);
    K52_LOG(info) << "Initialized Frame Metadata SubContainer : size = " << metadata.size
                  << ", id = " << hex32(metadata.identifier);
    K52_LOG(info) << "Initialized Frame Data SubContainer : size = " << frame.size
                  << ", id = " << hex32(frame.identifier);
    const auto checksum = container.updateChecksum();
    K52_LOG(info) << "Initialized generalContainer: checksum = " << hex32(checksum);
}

void ContainerManager::cleanupContainers()
{
    unmapContainers();
    K52_LOG(info) << "Cleaned-up Containers.";
}

void ContainerManager::unmapContainers()
{
    xmlContainer_.reset();
    generalContainer_.reset();
    K52_LOG(info) << "Containers unmapped successfully.";
    for (auto& descriptor : descriptors_) {
        const int fd = descriptor.release();
        if (fd != -1 && ::close(fd) == -1)
            K52_LOG(err) << "Failed to close file descriptor: " << fd;
    }
    for (const auto& [container, path] : paths_) {
        if (path.empty())
            continue;
        std::remove(path.c_str());
        K52_LOG(debug) << "Container removed: " << path;
    }
    descriptors_.clear();
}

void ContainerManager::discardContainers()
{
    auto discard = [&](K52Container container, bool wasMapped) {
        auto path = paths_.find(container);
        if (wasMapped && path != paths_.end())
            std::remove(path->second.c_str());
    };
    discard(K52Container::XML, static_cast<bool>(xmlContainer_));
    discard(K52Container::GENERAL, static_cast<bool>(generalContainer_));
    xmlContainer_.reset();
    generalContainer_.reset();
    descriptors_.clear();
}

} // namespace k52app
