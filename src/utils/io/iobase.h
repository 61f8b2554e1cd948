#pragma once

namespace utils {

// Something that is opened and closed as a whole: device files, containers.
class IOBase {
public:
    virtual ~IOBase() = default;
    virtual void open() = 0;
    virtual void close() = 0;
};

} // namespace utils
