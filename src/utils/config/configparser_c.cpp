#include "utils/config/configparser_c.h"

#include "utils/config/configparser.h"

#include <cerrno>
#include <iostream>
#include <memory>
#include <stdexcept>

// The box behind the opaque handle; C callers only ever see its address.
struct ConfigParserHandle {
    std::unique_ptr<k52app::ConfigParser> parser;
};

namespace {

k52app::ConfigParser& parserOf(ConfigParserHandle* handle)
{
    if (handle == nullptr || !handle->parser)
        throw std::invalid_argument("ConfigParser handle is null.");
    return *handle->parser;
}

void reportFailure(const std::exception& error)
{
    std::cerr << "Error: " << error.what() << "\n";
    errno = EINVAL;
}

} // namespace

extern "C" {

ConfigParserHandle* ConfigParser_create(int argc, char* const argv[])
{
    try {
        auto box = std::make_unique<ConfigParserHandle>();
        box->parser = std::make_unique<k52app::ConfigParser>(argc, argv);
        return box.release();
    } catch (const std::exception& error) {
        reportFailure(error);
        return nullptr;
    }
}

int ConfigParser_loadFromArguments(ConfigParserHandle* handle, int argc, char* const argv[])
{
    try {
        parserOf(handle).loadFromArguments(argc, argv);
        return 0;
    } catch (const std::exception& error) {
        reportFailure(error);
        return -1;
    }
}

const char* ConfigParser_get(ConfigParserHandle* handle, const char* key)
{
    try {
        if (key == nullptr)
            throw std::invalid_argument("ConfigParser key is null.");
        return parserOf(handle).values[key].c_str();
    } catch (const std::exception& error) {
        reportFailure(error);
        return nullptr;
    }
}

void ConfigParser_destroy(ConfigParserHandle* handle)
{
    std::unique_ptr<ConfigParserHandle> box(handle);
}

} // extern "C"
