#pragma once

#include "utils/base/exceptions.h"
#include "utils/container/xmlblock.h"

#include <cstdint>
#include <memory>
#include <string>

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
class XMLPrinter;
} // namespace tinyxml2

namespace utils {

// Edits the XML document held in an XML block through '/'-separated element paths. One
// serializer serves one batch of edits: construct, edit, commit(), destroy. Nothing reaches the
// block before commit(); edits that are not committed are lost. The owner of the block updates
// the container's checksum after commit().
class XMLBlockSerializer {
public:
    // Parses the block's text. When it holds no parsable document, starts a fresh one: the
    // default declaration and an empty element named `rootName`.
    XMLBlockSerializer(XmlContainerBlock& block, const std::string& rootName);
    ~XMLBlockSerializer();
    XMLBlockSerializer(const XMLBlockSerializer&) = delete;
    XMLBlockSerializer& operator=(const XMLBlockSerializer&) = delete;

    // Paths start below the root element: "/factory/name" names the root's child "factory".
    // Empty segments are skipped; a path without segments is the root itself. Both return null
    // when the document has no root element.

    // The element at `path`, created together with any missing ancestors. Where siblings share
    // a name, the walk follows the first.
    tinyxml2::XMLElement* findOrCreateElement(const std::string& path);
    // The element at `path` or, when it does not exist, its deepest existing ancestor. Creates
    // nothing. Where siblings share a name, the walk follows the last.
    tinyxml2::XMLElement* findElement(const std::string& path);

    // Sets the text of the element at `path` (created as needed) to to_string(value). The flag
    // is accepted for callers that pass it and has no effect.
    template <typename T>
    void insert(const std::string& path, const T& value, bool /*flag*/)
    {
        setText(path, to_string(value));
    }

    // The text an output string stream gives for `value`; a 32-byte unsigned char array (a V4L2
    // name field) reads as a C string up to its first zero byte. Defined for int32_t, uint32_t,
    // int64_t, uint64_t and unsigned char[32].
    template <typename T>
    static std::string to_string(const T& value);

    // Whether `text` is an element name that every XML reader accepts, namespace-aware ones
    // included: an XML name in UTF-8 without ':'.
    static bool isElementName(const std::string& text);
    // The element name under which `text` (a file name, a fourcc) is published: `text` itself
    // when it is a name; otherwise every byte that cannot stand where it is becomes "_xHH_" (two
    // upper-case hexadecimal digits), so "2 bars.pgm" becomes "_x32__x20_bars.pgm".
    static std::string elementName(const std::string& text);

    // Prints the document into the block and zeroes the rest of it. Throws UtilsOutOfRangeError
    // when the text and its terminating zero do not fit, and UtilsRuntimeError when an element
    // has a name that is not isElementName(); the block is then left as it was.
    void commit();

private:
    void setText(const std::string& path, const std::string& text);

    std::unique_ptr<tinyxml2::XMLDocument> document_;
    XmlContainerBlock& block_;
    std::unique_ptr<tinyxml2::XMLPrinter> printer_;
};

template <>
std::string XMLBlockSerializer::to_string<unsigned char[32]>(const unsigned char (&value)[32]);
extern template std::string XMLBlockSerializer::to_string<int32_t>(const int32_t&);
extern template std::string XMLBlockSerializer::to_string<uint32_t>(const uint32_t&);
extern template std::string XMLBlockSerializer::to_string<int64_t>(const int64_t&);
extern template std::string XMLBlockSerializer::to_string<uint64_t>(const uint64_t&);

} // namespace utils
