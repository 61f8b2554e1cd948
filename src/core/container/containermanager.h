#pragma once

#include "utils/container/container.h"
#include "utils/platform/filedescriptor.h"
#include "utils/io/iobase.h"
#include "utils/platform/mappedregion.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace k52app {

// The two container files the daemon publishes.
enum class K52Container : uint32_t { XML = 0, GENERAL = 1 };

// Creates, maps and initialises the XML and general container files, and unmaps and removes
// them at clean-up, so the files exist exactly while the daemon runs. The files are ordinary
// files shared with other processes, so they are reached with plain POSIX calls rather than
// through the device seam. Not thread-safe: writers hold the owner's resource-group lock.
//
// Before it touches a container file the manager takes an exclusive lock on "k52app.lock" beside
// them and holds it for its whole life, so a second daemon given the same directory fails
// instead of replacing the files under the first.
class ContainerManager : public utils::IOBase {
public:
    // Files in /tmp.
    ContainerManager();
    // Files named `prefix` + file name; the prefix is used as it stands, so it normally ends
    // with '/'. Missing directories are created. Throws std::runtime_error naming the lock file
    // when another process holds it.
    explicit ContainerManager(const std::string& prefix);
    ~ContainerManager() override;

    ContainerManager(ContainerManager&& other) noexcept;
    ContainerManager& operator=(ContainerManager&& other) noexcept;
    ContainerManager(const ContainerManager&) = delete;
    ContainerManager& operator=(const ContainerManager&) = delete;

    void open() override;
    void close() override;

    // Throws std::out_of_range when the container has no path (a moved-from manager).
    std::string getPath(K52Container container) const;

    // The mapped containers; std::logic_error when they are not mapped.
    utils::XMLContainer& xmlContainer();
    utils::XmlContainerBlock& xmlBlock();
    utils::GeneralContainer& generalContainer();
    utils::SubContainer<utils::IORTUDataAdapter>& rtuSubContainer();
    utils::SubContainer<utils::IOIMXDataAdapter>& imxSubContainer();
    utils::SubContainer<utils::IOV4L2FrameMetadata>& frameMetadataSubContainer();
    utils::SubContainer<utils::IOV4L2FrameData>& frameDataSubContainer();

    // Recomputes the container's checksum and stores it in its last four bytes; every writer
    // calls this after changing a container so that readers can detect a torn update.
    uint32_t updateChecksum(K52Container container);

private:
    static utils::FileDescriptor lockContainers(const std::string& path);
    void initializeContainers();
    void mapContainers();
    template <typename Layout>
    utils::MappedRegion mmapFile(const std::string& path);
    void initializeXMLContainer();
    void initializeGeneralContainer();
    void cleanupContainers();
    void unmapContainers();
    // Silently drops whatever is mapped and removes its files: undoes a failed initialisation,
    // or what a move assignment overwrites.
    void discardContainers();

    utils::FileDescriptor lock_; // first in, last out: held until the files are gone
    utils::MappedRegion xmlContainer_;
    utils::MappedRegion generalContainer_;
    std::map<K52Container, std::string> paths_;
    std::vector<utils::FileDescriptor> descriptors_;
};

} // namespace k52app
