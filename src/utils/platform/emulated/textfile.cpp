#include "utils/platform/emulated/textfile.h"

#include <algorithm>
#include <cstring>

namespace utils::platform::emulated {

class TextFile::Handle final : public VirtualFile {
public:
    explicit Handle(TextFile& file) : file_(file) {}

    ssize_t read(void* buffer, size_t length) override
    {
        ssize_t n = pread(buffer, length, offset_);
        if (n > 0)
            offset_ += n;
        return n;
    }

    ssize_t pread(void* buffer, size_t length, off_t offset) override
    {
        std::string text = file_.content();
        if (offset < 0)
            return fail(EINVAL);
        if (static_cast<size_t>(offset) >= text.size())
            return 0;
        size_t n = std::min(length, text.size() - static_cast<size_t>(offset));
        std::memcpy(buffer, text.data() + offset, n);
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const void* buffer, size_t length) override
    {
        return pwrite(buffer, length, 0);
    }

    ssize_t pwrite(const void* buffer, size_t length, off_t /*offset*/) override
    {
        std::string text(static_cast<const char*>(buffer), length);
        file_.setContent(text);
        if (file_.onWrite_)
            file_.onWrite_(text);
        return static_cast<ssize_t>(length);
    }

private:
    TextFile& file_;
    off_t offset_ = 0;
};

TextFile::TextFile(std::string content, Observer onWrite)
    : content_(std::move(content)), onWrite_(std::move(onWrite))
{
}

std::unique_ptr<VirtualFile> TextFile::open(int /*flags*/) { return std::make_unique<Handle>(*this); }

std::string TextFile::content() const
{
    std::lock_guard lock(mutex_);
    return content_;
}

void TextFile::setContent(std::string content)
{
    std::lock_guard lock(mutex_);
    content_ = std::move(content);
}

} // namespace utils::platform::emulated
