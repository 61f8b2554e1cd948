#include "utils/platform/emulated/registermodel.h"

#include "utils/regmap/registeraccess.h"

#include <endian.h>

#include <cstring>
#include <limits>

namespace utils::platform::emulated {

class RegisterModel::Handle final : public VirtualFile {
public:
    // Shares the model so that an open descriptor outlives a re-attached node.
    explicit Handle(std::shared_ptr<RegisterModel> model) : owner_(std::move(model)), model_(*owner_) {}

    int ioctl(unsigned long request, void* argument) override
    {
        if (request != K52_REGISTER_READ && request != K52_REGISTER_WRITE)
            return fail(ENOTTY);
        if (!argument)
            return fail(EFAULT);
        auto& access = *static_cast<k52_register_access*>(argument);
        if (!addressable(access.address, access.length))
            return fail(EINVAL);
        std::lock_guard lock(model_.mutex_);
        const int error = request == K52_REGISTER_READ ? read(access) : write(access);
        return error ? fail(error) : 0;
    }

private:
    // Registers take exactly one aligned word; tables up to a record's worth of bytes inside
    // the 32-bit address space.
    static bool addressable(uint32_t address, uint32_t length)
    {
        if (length == 0 || length > K52_REGISTER_DATA_MAX ||
            uint64_t{address} + length > std::numeric_limits<uint32_t>::max())
            return false;
        if (address < tableBase)
            return length == sizeof(uint32_t) && address % sizeof(uint32_t) == 0;
        return true;
    }

    int read(k52_register_access& access)
    {
        if (access.address >= tableBase)
            return model_.readTable(access.address, {access.data, access.length});
        uint32_t value = 0;
        int error = model_.readRegister(access.address, value);
        value = htole32(value);
        std::memcpy(access.data, &value, sizeof value);
        return error;
    }

    int write(const k52_register_access& access)
    {
        if (access.address >= tableBase)
            return model_.writeTable(access.address, {access.data, access.length});
        uint32_t value = 0;
        std::memcpy(&value, access.data, sizeof value);
        return model_.writeRegister(access.address, le32toh(value));
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
