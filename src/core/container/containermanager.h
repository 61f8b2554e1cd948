#pragma once

#include "utils/container/container.h"
#include "utils/io/iobase.h"

#include <sys/mman.h>
#include <unistd.h>

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
    // Owns one shared mapping of a whole container file.
    template <typename Layout>
    class MappedContainer {
    public:
        MappedContainer() = default;
        explicit MappedContainer(void* address) : layout_(static_cast<Layout*>(address)) {}
        MappedContainer(MappedContainer&& other) noexcept
            : layout_(std::exchange(other.layout_, nullptr))
        {
        }
        MappedContainer& operator=(MappedContainer&& other) noexcept
        {
            if (this != &other) {
                reset();
                layout_ = std::exchange(other.layout_, nullptr);
            }
            return *this;
        }
        ~MappedContainer() { reset(); }

        void reset()
        {
            if (layout_)
                ::munmap(layout_, sizeof(Layout));
            layout_ = nullptr;
        }
        Layout* get() const { return layout_; }
        explicit operator bool() const { return layout_ != nullptr; }

    private:
        Layout* layout_ = nullptr;
    };

    // Owns one descriptor of a container file.
    class FileDescriptor {
    public:
        explicit FileDescriptor(int fd) : fd_(fd) {}
        FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
        FileDescriptor& operator=(FileDescriptor&& other) noexcept
        {
            if (this != &other) {
                reset();
                fd_ = std::exchange(other.fd_, -1);
            }
            return *this;
        }
        ~FileDescriptor() { reset(); }

        int get() const { return fd_; }
        int release() { return std::exchange(fd_, -1); }
        void reset()
        {
            if (fd_ != -1)
                ::close(fd_);
            fd_ = -1;
        }
        explicit operator bool() const { return fd_ != -1; }

    private:
        int fd_;
    };

    static FileDescriptor lockContainers(const std::string& path);
    void initializeContainers();
    void mapContainers();
    template <typename Layout>
    MappedContainer<Layout> mmapFile(const std::string& path);
    void initializeXMLContainer();
    void initializeGeneralContainer();
    void cleanupContainers();
    void unmapContainers();
    // Silently drops whatever is mapped and removes its files: undoes a failed initialisation,
    // or what a move assignment overwrites.
    void discardContainers();

    FileDescriptor lock_; // first in, last out: held until the files are gone
    MappedContainer<utils::XMLContainer> xmlContainer_;
    MappedContainer<utils::GeneralContainer> generalContainer_;
    std::map<K52Container, std::string> paths_;
    std::vector<FileDescriptor> descriptors_;
};

} // namespace k52app
