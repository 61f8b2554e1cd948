#include "utils/container/xmlblockserializer.h"

#include <tinyxml2.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <vector>

namespace utils {

namespace {

std::vector<std::string> pathSegments(const std::string& path)
{
    std::vector<std::string> segments;
    std::istringstream parts(path);
    for (std::string segment; std::getline(parts, segment, '/');) {
        if (!segment.empty())
            segments.push_back(segment);
    }
    return segments;
}

struct CodeRange {
    char32_t first, last;
};

// XML 1.0 name characters without ':', which namespace-aware readers give a meaning of its own.
constexpr CodeRange nameStartRanges[] = {
    {'A', 'Z'},       {'_', '_'},       {'a', 'z'},       {0xC0, 0xD6},     {0xD8, 0xF6},
    {0xF8, 0x2FF},    {0x370, 0x37D},   {0x37F, 0x1FFF},  {0x200C, 0x200D}, {0x2070, 0x218F},
    {0x2C00, 0x2FEF}, {0x3001, 0xD7FF}, {0xF900, 0xFDCF}, {0xFDF0, 0xFFFD}, {0x10000, 0xEFFFF},
};
constexpr CodeRange nameOnlyRanges[] = {
    {'-', '.'}, {'0', '9'}, {0xB7, 0xB7}, {0x300, 0x36F}, {0x203F, 0x2040},
};

template <std::size_t N>
bool within(const CodeRange (&ranges)[N], char32_t code)
{
    return std::any_of(ranges, ranges + N,
                       [code](const CodeRange& range) { return code >= range.first && code <= range.last; });
}

struct CodePoint {
    char32_t value;
    std::size_t length; // 0: the bytes are no well-formed UTF-8
};

CodePoint decodeUtf8(const std::string& text, std::size_t at)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(at);
    if (lead < 0x80)
        return {lead, 1};
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || lead > 0xF4 || at + length > text.size())
        return {0, 0};
    char32_t value = lead & (0x7F >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80)
            return {0, 0};
        value = value << 6 | (byte(at + i) & 0x3F);
    }
    // Overlong forms, surrogates and values past the last code point are no characters.
    constexpr char32_t shortest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (value < shortest[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return {0, 0};
    return {value, length};
}

// The first element from `element` on, its siblings and their descendants included, whose name
// is not an element name.
const tinyxml2::XMLElement* firstBadlyNamed(const tinyxml2::XMLElement* element)
{
    for (; element; element = element->NextSiblingElement()) {
        if (!XMLBlockSerializer::isElementName(element->Name()))
            return element;
        if (const auto* bad = firstBadlyNamed(element->FirstChildElement()))
            return bad;
    }
    return nullptr;
}

} // namespace

XMLBlockSerializer::XMLBlockSerializer(XmlContainerBlock& block, const std::string& rootName)
    : document_(std::make_unique<tinyxml2::XMLDocument>(true, tinyxml2::PRESERVE_WHITESPACE)),
      block_(block), printer_(std::make_unique<tinyxml2::XMLPrinter>(nullptr, false, 0))
{
    // Bounded by the block, so a block that lost its terminating zero cannot be over-read.
    auto error = document_->Parse(block_.text, strnlen(block_.text, XmlContainerBlock::size));
    if (error == tinyxml2::XML_SUCCESS)
        return;
    // A zeroed block (a new container) is the normal way to get here and stays silent; a
    // malformed attribute means someone wrote a broken document, which is worth a trace.
    if (error == tinyxml2::XML_ERROR_PARSING_ATTRIBUTE)
        std::cerr << "XML Line " << document_->ErrorLineNum() << ": " << document_->ErrorStr()
                  << "\n";
    document_->Clear();
    document_->InsertEndChild(document_->NewDeclaration());
    document_->InsertEndChild(document_->NewElement(rootName.c_str()));
}

XMLBlockSerializer::~XMLBlockSerializer() = default;

tinyxml2::XMLElement* XMLBlockSerializer::findOrCreateElement(const std::string& path)
{
    auto* current = document_->FirstChildElement();
    if (!current)
        return nullptr;
    for (const auto& segment : pathSegments(path)) {
        auto* child = current->FirstChildElement(segment.c_str());
        if (!child)
            child = current->InsertNewChildElement(segment.c_str());
        current = child;
    }
    return current;
}

tinyxml2::XMLElement* XMLBlockSerializer::findElement(const std::string& path)
{
    auto* current = document_->FirstChildElement();
    if (!current)
        return nullptr;
    for (const auto& segment : pathSegments(path)) {
        auto* child = current->LastChildElement(segment.c_str());
        if (!child)
            break;
        current = child;
    }
    return current;
}

void XMLBlockSerializer::setText(const std::string& path, const std::string& text)
{
    auto* element = findOrCreateElement(path);
    if (!element)
        throw UtilsRuntimeError("XML document has no root element to hold '" + path + "'");
    element->SetText(text.c_str());
}

std::string XMLBlockSerializer::elementName(const std::string& text)
{
    std::string name;
    for (std::size_t at = 0; at < text.size();) {
        const auto [code, length] = decodeUtf8(text, at);
        const bool fits =
            length && (within(nameStartRanges, code) || (!name.empty() && within(nameOnlyRanges, code)));
        const std::size_t taken = length ? length : 1;
        if (fits) {
            name.append(text, at, taken);
        } else {
            for (std::size_t i = at; i < at + taken; ++i) {
                char escaped[6];
                std::snprintf(escaped, sizeof escaped, "_x%02X_", static_cast<unsigned char>(text[i]));
                name += escaped;
            }
        }
        at += taken;
    }
    return name;
}

bool XMLBlockSerializer::isElementName(const std::string& text)
{
    return !text.empty() && elementName(text) == text;
}

void XMLBlockSerializer::commit()
{
    // The next parse would reject such a name and start a fresh document: refuse it here, where
    // the block still holds everything.
    if (const auto* bad = firstBadlyNamed(document_->FirstChildElement()))
        throw UtilsRuntimeError("XML element name '" + std::string(bad->Name()) +
                                "' is not valid (publish it as '" + elementName(bad->Name()) + "')");
    printer_->ClearBuffer();
    document_->Print(printer_.get());
    const auto length = static_cast<std::size_t>(printer_->CStrSize() - 1);
    // Strictly smaller: the terminating zero must fit too.
    if (length >= XmlContainerBlock::size)
        throw UtilsOutOfRangeError("XML content size=" + std::to_string(length) +
                                   ", block-size=" + std::to_string(XmlContainerBlock::size));
    // A document read leniently (text after the root, say) can print as one that no longer
    // parses; storing it would cost the next reader the whole container.
    tinyxml2::XMLDocument check(true, tinyxml2::PRESERVE_WHITESPACE);
    if (check.Parse(printer_->CStr(), length) != tinyxml2::XML_SUCCESS)
        throw UtilsRuntimeError(std::string("XML document not stored: it would not parse back (") +
                                check.ErrorStr() + ")");
    std::memset(block_.text, 0, XmlContainerBlock::size);
    std::memcpy(block_.text, printer_->CStr(), length);
}

template <typename T>
std::string XMLBlockSerializer::to_string(const T& value)
{
    std::ostringstream text;
    text << value;
    return text.str();
}

template <>
std::string XMLBlockSerializer::to_string<unsigned char[32]>(const unsigned char (&value)[32])
{
    auto* characters = reinterpret_cast<const char*>(value);
    return std::string(characters, strnlen(characters, sizeof value));
}

template std::string XMLBlockSerializer::to_string<int32_t>(const int32_t&);
template std::string XMLBlockSerializer::to_string<uint32_t>(const uint32_t&);
template std::string XMLBlockSerializer::to_string<int64_t>(const int64_t&);
template std::string XMLBlockSerializer::to_string<uint64_t>(const uint64_t&);

} // namespace utils
