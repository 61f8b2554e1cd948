#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <utility>

namespace utils {

// Owns one mapping and unmaps it when destroyed or reset. Like FileDescriptor, a mapping of a
// seam descriptor is released through the seam, one of a plain file directly.
class MappedRegion {
public:
    enum class Unmapper { seam, system };

    MappedRegion() = default;
    // Takes what mmap returned: MAP_FAILED (or null) leaves the region empty, errno untouched.
    MappedRegion(void* address, std::size_t length, Unmapper unmapper = Unmapper::seam)
        : address_(address == MAP_FAILED ? nullptr : address), length_(length), unmapper_(unmapper)
    {
    }
    MappedRegion(MappedRegion&& other) noexcept
        : address_(std::exchange(other.address_, nullptr)),
          length_(std::exchange(other.length_, 0)),
          unmapper_(other.unmapper_)
    {
    }
    MappedRegion& operator=(MappedRegion&& other) noexcept
    {
        if (this != &other) {
            reset();
            address_ = std::exchange(other.address_, nullptr);
            length_ = std::exchange(other.length_, 0);
            unmapper_ = other.unmapper_;
        }
        return *this;
    }
    MappedRegion(const MappedRegion&) = delete;
    MappedRegion& operator=(const MappedRegion&) = delete;
    ~MappedRegion() { reset(); }

    void* get() const { return address_; }
    template <typename T>
    T* as() const
    {
        return static_cast<T*>(address_);
    }
    std::size_t size() const { return length_; }
    explicit operator bool() const { return address_ != nullptr; }
    void reset() noexcept;

private:
    void* address_ = nullptr;
    std::size_t length_ = 0;
    Unmapper unmapper_ = Unmapper::seam;
};

} // namespace utils
