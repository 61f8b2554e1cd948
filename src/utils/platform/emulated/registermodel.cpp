#include "utils/platform/emulated/registermodel.h"

#include <endian.h>

#include <cstring>
#include <limits>

namespace utils::platform::emulated {

class RegisterModel::Handle final : public VirtualFile {
public:
    // Shares the model so that an open descriptor outlives a re-attached node.
    explicit Handle(std::shared_ptr<RegisterModel> model) : owner_(std::move(model)), model_(*owner_) {}

    ssize_t pread(void* buffer, size_t length, off_t offset) override
    {
        if (!addressable(length, offset))
            return fail(EINVAL);
        auto address = static_cast<uint32_t>(offset);
        std::lock_guard lock(model_.mutex_);
        int error = 0;
        if (address < tableBase) {
            uint32_t value = 0;
            error = model_.readRegister(address, value);
            value = htole32(value);
            std::memcpy(buffer, &value, sizeof value);
        } else {
            error = model_.readTable(address, {static_cast<uint8_t*>(buffer), length});
        }
        return error ? fail(error) : static_cast<ssize_t>(length);
    }

    ssize_t pwrite(const void* buffer, size_t length, off_t offset) override
    {
        if (!addressable(length, offset))
            return fail(EINVAL);
        auto address = static_cast<uint32_t>(offset);
        std::lock_guard lock(model_.mutex_);
        int error = 0;
        if (address < tableBase) {
            uint32_t value = 0;
            std::memcpy(&value, buffer, sizeof value);
            error = model_.writeRegister(address, le32toh(value));
        } else {
            error = model_.writeTable(address, {static_cast<const uint8_t*>(buffer), length});
        }
        return error ? fail(error) : static_cast<ssize_t>(length);
    }

private:
    // Registers take exactly one aligned word; tables any length inside the address space.
    static bool addressable(size_t length, off_t offset)
    {
        if (offset < 0 || length == 0 ||
            static_cast<unsigned long long>(offset) + length >
                std::numeric_limits<uint32_t>::max())
            return false;
        if (offset < static_cast<off_t>(tableBase))
            return length == sizeof(uint32_t) && offset % sizeof(uint32_t) == 0;
        return true;
    }

    std::shared_ptr<RegisterModel> owner_;
    RegisterModel& model_;
};

RegisterModel::RegisterModel(std::string path, FaultInjector& faults)
    : path_(std::move(path)), faults_(faults)
{
}

std::unique_ptr<VirtualFile> RegisterModel::open(int /*flags*/)
{
    return std::make_unique<Handle>(shared_from_this());
}

} // namespace utils::platform::emulated
