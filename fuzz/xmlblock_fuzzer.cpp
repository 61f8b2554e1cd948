// The XML block serializer over arbitrary block bytes: whatever the block held, a committed edit
// must leave a block that parses back with the edit in it.
#include "utils/container/xmlblockserializer.h"

#include <tinyxml2.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    auto block = std::make_unique<utils::XmlContainerBlock>();
    std::memset(block->text, 0, sizeof block->text);
    std::memcpy(block->text, data, std::min(size, sizeof block->text));
    // The input's first bytes also become a text value, as a driver's name field would, so
    // that escaping is exercised.
    unsigned char name[32] = {};
    std::memcpy(name, data, std::min(size, sizeof name - 1));
    const std::string path = "/factory/static-files/fuzz";
    try {
        utils::XMLBlockSerializer serializer(*block, "k52app");
        serializer.findElement("/settings/status/imx");
        serializer.insert("/settings/status/rtu/fps", uint32_t{30}, true);
        serializer.insert(path, name, true);
        serializer.commit();
    } catch (const utils::UtilsException&) {
        return 0; // no root element, or the document does not fit: the block is left as it was
    }
    tinyxml2::XMLDocument reread;
    if (reread.Parse(block->text, strnlen(block->text, sizeof block->text)) != tinyxml2::XML_SUCCESS)
        std::abort();
    const tinyxml2::XMLElement* element = reread.RootElement();
    for (const char* name : {"factory", "static-files", "fuzz"})
        element = element ? element->FirstChildElement(name) : nullptr;
    if (!element)
        std::abort();
    return 0;
}
