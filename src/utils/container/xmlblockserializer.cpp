#include "utils/container/xmlblockserializer.h"

#include <tinyxml2.h>

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

void XMLBlockSerializer::commit()
{
    printer_->ClearBuffer();
    document_->Print(printer_.get());
    const auto length = static_cast<std::size_t>(printer_->CStrSize() - 1);
    // Strictly smaller: the terminating zero must fit too.
    if (length >= XmlContainerBlock::size)
        throw UtilsOutOfRangeError("XML content size=" + std::to_string(length) +
                                   ", block-size=" + std::to_string(XmlContainerBlock::size));
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
template std::string XMLBlockSerializer::to_string<uint64_t>(const uint64_t&);

} // namespace utils
