#include "utils/base/exceptions.h"
#include "utils/container/xmlblock.h"
#include "utils/container/xmlblockserializer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

using utils::XmlContainerBlock;
using utils::XMLBlockSerializer;

namespace {

constexpr std::size_t blockSize = 229356;

class XmlBlockTest : public ::testing::Test {
protected:
    // Value-initialised: a zero-filled block, as in a new container file.
    std::unique_ptr<XmlContainerBlock> block = std::make_unique<XmlContainerBlock>();

    void store(const std::string& text)
    {
        std::memset(block->text, 0, blockSize);
        std::memcpy(block->text, text.data(), text.size());
    }
    std::string text() const { return std::string(block->text, strnlen(block->text, blockSize)); }
    bool zeroAfterText() const
    {
        return std::all_of(block->text + text().size(), block->text + blockSize, [](char c) { return c == 0; });
    }
};

// "device/a#2/b": element names from the root down, with the id attribute where there is one.
std::string describe(const tinyxml2::XMLElement* element)
{
    if (!element)
        return "null";
    std::string name = element->Name();
    if (const char* id = element->Attribute("id"))
        name += std::string("#") + id;
    auto* parent = element->Parent() ? element->Parent()->ToElement() : nullptr;
    return parent ? describe(parent) + "/" + name : name;
}

int countElements(const tinyxml2::XMLElement* element)
{
    int count = 1;
    for (auto* child = element->FirstChildElement(); child; child = child->NextSiblingElement())
        count += countElements(child);
    return count;
}

// Only attribute errors are reported; any unusable block starts a fresh document that a commit
// stores with its declaration.
TEST_F(XmlBlockTest, UnusableBlockStartsFreshDocument)
{
    const std::pair<const char*, int> cases[] = {
        {"<device a=1/>", 1}, // the line of the reported error; 0: nothing on standard error
        {"<?xml version=\"1.0\"?>\n<device>\n<a b=c/>\n</device>", 3},
        {"<device><a></b></device>", 0},
    };
    for (const auto& [stored, line] : cases) {
        SCOPED_TRACE(stored);
        store(stored);
        testing::internal::CaptureStderr();
        XMLBlockSerializer serializer(*block, "fresh");
        tinyxml2::XMLDocument reference;
        reference.Parse(stored);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  line ? "XML Line " + std::to_string(line) + ": " + reference.ErrorStr() + "\n" : "");
        EXPECT_EQ(text(), stored) << "nothing is written before commit";

        serializer.commit();
        EXPECT_EQ(text(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<fresh/>\n");
        EXPECT_TRUE(zeroAfterText());
    }
}

TEST_F(XmlBlockTest, WalksFollowTheirOwnRules)
{
    enum Walk { find, findOrCreate };
    const struct {
        Walk walk;
        const char* path;
        const char* expected;
        int created;
    } cases[] = {
        {findOrCreate, "/a", "device/a#1", 0},
        {find, "/a/b", "device/a#2/b", 0},
        {findOrCreate, "/a/b", "device/a#1/b", 1},
        {find, "", "device", 0},
        {find, "/factory/missing/x", "device/factory", 0},
        {findOrCreate, "//factory//name/", "device/factory/name", 0},
        {findOrCreate, "/factory/v4l2/card", "device/factory/v4l2/card", 2},
    };
    const std::string document = "<device><a id=\"1\"/><a id=\"2\"><b/></a>"
                                 "<factory><name/></factory></device>";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        store(document);
        {
            // The root name is only for a fresh document: the parsed one keeps its own.
            XMLBlockSerializer serializer(*block, "unused");
            auto* root = serializer.findElement("");
            const int before = countElements(root);
            auto* element = c.walk == find ? serializer.findElement(c.path) : serializer.findOrCreateElement(c.path);
            EXPECT_EQ(describe(element), c.expected);
            EXPECT_EQ(countElements(root) - before, c.created);
            EXPECT_TRUE(!c.created || !element->NextSibling()) << "appended as the last child";
        }
        EXPECT_EQ(text(), document) << "edits without a commit are lost";
    }
}

// A name that cannot be an element is published in its escaped form; the raw name never reaches
// the block, where the next parse would reject the document and start a fresh one. Nor does a
// document read leniently (text after the root) that would print as one that no longer parses.
TEST_F(XmlBlockTest, CommittedDocumentsSurviveTheNextParse)
{
    const std::pair<const char*, const char*> cases[] = {
        {"_x20_\xc3\xa9t\xc3\xa9.pgm", "_x20_\xc3\xa9t\xc3\xa9.pgm"}, // valid names stay as they are
        {"-x:y&", "_x2D_x_x3A_y_x26_"},
        {"\xff\xc3.pgm\xc3\x97", "_xFF__xC3_.pgm_xC3__x97_"}, // not UTF-8; U+00D7 is no name character
    };
    const std::string kept = "<device><kept/></device>";
    for (const auto& [name, published] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(XMLBlockSerializer::elementName(name), published);
        store(kept);
        if (std::string(name) != published) {
            XMLBlockSerializer serializer(*block, "device");
            serializer.findOrCreateElement(std::string("/f/") + name);
            EXPECT_THROW(serializer.commit(), utils::UtilsRuntimeError);
            EXPECT_EQ(text(), kept);
        }
        {
            XMLBlockSerializer serializer(*block, "device");
            serializer.findOrCreateElement(std::string("/f/") + published);
            serializer.commit();
        }
        XMLBlockSerializer reread(*block, "fresh");
        EXPECT_STREQ(reread.findElement("/kept")->Name(), "kept");
        EXPECT_STREQ(reread.findElement(std::string("/f/") + published)->Name(), published);
    }
    store("<a></a>uu</a>");
    XMLBlockSerializer lenient(*block, "device");
    EXPECT_THROW(lenient.commit(), utils::UtilsRuntimeError);
    EXPECT_EQ(text(), "<a></a>uu</a>");
}

TEST_F(XmlBlockTest, InsertWritesStreamTextOfValue)
{
    unsigned char full[32]; // no terminating zero: all 32 bytes are the text
    std::memset(full, 'x', sizeof full);
    XMLBlockSerializer serializer(*block, "device");
    serializer.insert("/v/negative", int32_t{-2147483647 - 1}, true);
    serializer.insert("/v/unsigned", uint32_t{4294967295u}, false);
    serializer.insert("/v/full", full, true);
    serializer.commit();
    EXPECT_EQ(text().substr(text().find("<v>")),
              "<v>\n        <negative>-2147483648</negative>\n        <unsigned>4294967295</unsigned>\n"
              "        <full>" + std::string(32, 'x') + "</full>\n    </v>\n</device>\n");
}

// The printed text and its terminating zero must fit; a failed commit leaves the block as it
// was, and a smaller commit leaves no trace of the larger text.
TEST_F(XmlBlockTest, CommitNeedsRoomForTheTerminatingZero)
{
    const std::string previous = "<device><previous/></device>";
    const auto commitText = [&](std::size_t length) {
        XMLBlockSerializer serializer(*block, "device");
        serializer.findOrCreateElement("/t")->SetText(std::string(length, 'y').c_str());
        serializer.commit();
    };
    store(previous);
    commitText(1);
    const std::size_t overhead = text().size() - 1; // the printed length grows with the text
    store(previous);
    const std::vector<char> before(block->text, block->text + blockSize);
    EXPECT_THAT([&] { commitText(blockSize - overhead); },
                testing::ThrowsMessage<utils::UtilsOutOfRangeError>("XML content size=229356, block-size=229356"));
    EXPECT_EQ(std::memcmp(block->text, before.data(), blockSize), 0) << "a failed commit changed the block";

    commitText(blockSize - 1 - overhead);
    EXPECT_EQ(text().size(), blockSize - 1);
    commitText(1);
    EXPECT_EQ(text().find("yy"), std::string::npos);
    EXPECT_TRUE(zeroAfterText());
}

} // namespace
