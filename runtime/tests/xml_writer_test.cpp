// The document's writer, escaping, round trips, paths and file binding.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "XmlReaderWriter.h"

namespace {

using Node = XmlReaderWriter::Node;

const std::string kDefaultDeclaration =
    "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n\n";

bool Parse(XmlReaderWriter& doc, std::string text) {
  return doc.readFrom(&text[0], static_cast<unsigned>(text.size()));
}

std::string Serialized(const XmlReaderWriter& doc) {
  std::string out;
  EXPECT_TRUE(doc.toString(out));
  return out;
}

TEST(XmlWriter, LaysOutDeclarationIndentationAndLeaves) {
  XmlReaderWriter doc;
  ASSERT_TRUE(Parse(doc, "<a x=\"1\"><b>t</b><c/></a>"));
  EXPECT_EQ(Serialized(doc), kDefaultDeclaration + "<a x=\"1\">\n  <b>t</b>\n  <c/>\n</a>\n");
  EXPECT_EQ(doc.getRootNode()["b"].toString(), "<b>t</b>\n");
  EXPECT_EQ(doc.getRootNode()["c"].toString(), "<c/>\n");
}

TEST(XmlWriter, ContentsFollowChildrenAndEmptyRootTakesTwoLines) {
  XmlReaderWriter doc;
  ASSERT_TRUE(Parse(doc, "<r><p>text<q><s/></q></p></r>"));
  EXPECT_EQ(Serialized(doc),
            kDefaultDeclaration + "<r>\n  <p>    <q>\n      <s/>\n    </q>\ntext</p>\n</r>\n");
  XmlReaderWriter empty;
  empty.createDocument();
  ASSERT_TRUE(empty.createRootNode("only"));
  EXPECT_EQ(Serialized(empty), kDefaultDeclaration + "<only>\n</only>\n");
}

TEST(XmlWriter, EscapesContentsAndAttributesButNotEncodedSequences) {
  XmlReaderWriter doc;
  doc.createDocument();
  doc.createRootNode("r");
  Node root = doc.getRootNode();
  root.value() = "a<b & c&amp;d&#39;e&#x27;";
  root.addAttribute("q", "\"it's\" <&>");
  EXPECT_EQ(
      root.toString(),
      "<r q=\"&quot;it&apos;s&quot; &lt;&amp;&gt;\">a&lt;b &amp; c&amp;d&#39;e&amp;#x27;</r>\n");
  EXPECT_EQ(XmlReaderWriter::encodeSpecialChar(""), "");
  EXPECT_EQ(XmlReaderWriter::encodeSpecialChar(nullptr), "");
}

TEST(XmlWriter, RecognisesEncodedSequences) {
  struct Case {
    const char* text;
    bool encoded;
  } cases[] = {{"&#39;", true},   {"&#;", true},        {"&amp;", true}, {"&Q7z;", true},
               {"&#x27;", false}, {"&#X27;", false},    {"&;", false},   {"&amp", false},
               {"&#12", false},   {"&a-b;", false},     {"& b;", false}, {"&", false},
               {"x&a;", false},   {"&\xc3\xa9;", false}};
  for (const Case& c : cases) {
    EXPECT_EQ(XmlReaderWriter::isEncodedSequence(c.text), c.encoded) << c.text;
  }
  EXPECT_FALSE(XmlReaderWriter::isEncodedSequence(nullptr));
}

TEST(XmlWriter, RoundTripsKeepTheDocument) {
  const char* corpus[] = {
      "<a/>",
      "<a x=\"1\" y=\"&quot;two&quot;\"><b>t</b><c/><b>u &lt; v</b></a>",
      "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?><OAP-request "
      "version=\"3.0\" id=\"ff01\"><Header><IP>127.0.0.1</IP><Port>8080</Port></Header>"
      "<Body><Text>caf\xc3\xa9 &amp; bar</Text></Body></OAP-request>",
      "<r>mixed<k a='it&apos;s'>x</k>tail</r>",
      "<d><e><f><g>deep</g></f></e><e/></d>",
  };
  for (const char* text : corpus) {
    XmlReaderWriter first;
    ASSERT_TRUE(Parse(first, text)) << text;
    const std::string once = Serialized(first);
    XmlReaderWriter second;
    ASSERT_TRUE(Parse(second, once)) << once;
    EXPECT_EQ(Serialized(second), once);
    Node a = first.getRootNode();
    Node b = second.getRootNode();
    EXPECT_TRUE(a == b) << text;
    EXPECT_EQ(a.getChildrenCount(), b.getChildrenCount()) << text;
  }
}

TEST(XmlWriter, PathsWalkCreateAndReport) {
  XmlReaderWriter doc;
  EXPECT_FALSE(doc.isNode(2, "r", "a"));
  EXPECT_THROW(doc.createDocumentPath({"r", "a"}), XmlReaderWriter::NodeException);
  EXPECT_TRUE(doc.createDocument());
  EXPECT_FALSE(doc.createDocument());
  Node leaf = doc.createDocumentPath(3, "r", "a", "b");
  leaf.value() = "v";
  doc.createDocumentPath({"r", "a", "c"});
  EXPECT_FALSE(doc.createRootNode("again"));
  EXPECT_TRUE(doc.isNode({"ignored", "a", "b"}));
  EXPECT_FALSE(doc.isNode(3, "r", "a", "zz"));
  EXPECT_TRUE(doc.getNode(3, "r", "a", "b").value() == "v");
  EXPECT_TRUE(doc.getNode({"r"}).name() == "r");
  EXPECT_EQ(doc.getRootNode()["a"].getChildrenCount(), 2u);
  try {
    doc.getNode({"r", "a", "missing"});
    ADD_FAILURE() << "missing path element found";
  } catch (const XmlReaderWriter::NodeException& e) {
    EXPECT_EQ(e.getMessage(), "Node not present");
  }
}

class XmlFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/xml_file_test_XXXXXX";
    const int fd = mkstemp(pattern);
    ASSERT_GE(fd, 0);
    ::close(fd);
    m_path = pattern;
  }
  void TearDown() override { std::remove(m_path.c_str()); }

  std::string Contents() const {
    std::ifstream in(m_path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  void SetContents(const std::string& text) const { std::ofstream(m_path) << text; }

  std::string m_path;
};

TEST_F(XmlFileTest, WritesToAPathAndReadsBackThroughConstructorFlags) {
  XmlReaderWriter doc;
  ASSERT_TRUE(Parse(doc, "<cfg><item k=\"1\">one</item></cfg>"));
  ASSERT_TRUE(doc.write(m_path));
  EXPECT_EQ(Contents(), kDefaultDeclaration + "<cfg>\n  <item k=\"1\">one</item>\n</cfg>\n");

  XmlReaderWriter loaded(m_path, XmlReaderWriter::OPEN_FILE | XmlReaderWriter::OPEN_READ |
                                     XmlReaderWriter::OPEN_LOCK | XmlReaderWriter::OPEN_UNLOCK);
  EXPECT_TRUE(loaded.isFileOpened());
  EXPECT_TRUE(loaded.isFileLoaded());
  EXPECT_FALSE(loaded.isFileLocked());
  EXPECT_FALSE(loaded.isMutable());
  EXPECT_TRUE(loaded.getRootNode()["item"].value() == "one");
}

TEST_F(XmlFileTest, ChangesAreWrittenBackToTheOwnFileWhole) {
  SetContents("<cfg><item>a much longer text than the result</item></cfg>");
  XmlReaderWriter doc(m_path, 0);
  EXPECT_FALSE(doc.write());  // not opened yet
  ASSERT_TRUE(doc.open(false, true));
  EXPECT_FALSE(doc.open(false, true));  // already opened
  ASSERT_TRUE(doc.read());
  doc.getRootNode()["item"].value() = "b";
  doc.getRootNode()["new"].attributeValue("n") = 7;
  ASSERT_TRUE(doc.write());
  EXPECT_EQ(Contents(),
            kDefaultDeclaration + "<cfg>\n  <item>b</item>\n  <new n=\"7\"/>\n</cfg>\n");
  ASSERT_TRUE(doc.read());  // reads its own output again
  EXPECT_TRUE(doc.getRootNode()["new"].attributeValue("n") == 7);
  EXPECT_TRUE(doc.close());
  EXPECT_FALSE(doc.close());
  EXPECT_FALSE(doc.isFileOpened() || doc.isFileLoaded() || doc.isFileLocked());
  EXPECT_TRUE(doc.isDocumentPresent());  // the tree stays
  EXPECT_FALSE(doc.open(true, false));   // the file object is gone
}

TEST_F(XmlFileTest, OpenFlagsCreateTruncateAndLock) {
  EXPECT_FALSE(XmlReaderWriter(m_path + ".missing", XmlReaderWriter::OPEN_FILE).isFileOpened());
  XmlReaderWriter created(m_path + ".new",
                          XmlReaderWriter::OPEN_FILE | XmlReaderWriter::OPEN_CREATE);
  EXPECT_TRUE(created.isFileOpened());
  EXPECT_FALSE(created.read());  // empty file: no document
  std::remove((m_path + ".new").c_str());

  SetContents("<old/>");
  XmlReaderWriter doc(m_path, 0);
  EXPECT_FALSE(doc.open(XmlReaderWriter::OPEN_CREATE));  // bit 1 missing
  EXPECT_FALSE(doc.lock(true, false));
  EXPECT_FALSE(doc.unlock());
  ASSERT_TRUE(doc.open(XmlReaderWriter::OPEN_FILE | XmlReaderWriter::OPEN_TRUNCATE |
                       XmlReaderWriter::OPEN_LOCK | XmlReaderWriter::OPEN_MUTABLE));
  EXPECT_EQ(Contents(), "");
  EXPECT_TRUE(doc.isFileLocked());
  EXPECT_TRUE(doc.isMutable());

  XmlReaderWriter other(m_path, XmlReaderWriter::OPEN_FILE);
  EXPECT_TRUE(other.lock(true, false));  // shared locks coexist
  EXPECT_TRUE(other.unlock());
  EXPECT_FALSE(other.lock(false, false));  // exclusive is refused while shared is held
  EXPECT_TRUE(doc.unlock());
  EXPECT_FALSE(doc.isFileLocked());
  EXPECT_TRUE(other.lock(false, false));
  EXPECT_TRUE(other.lock(false, false));  // already locked
}

TEST_F(XmlFileTest, FailuresReturnFalse) {
  XmlReaderWriter doc;
  EXPECT_FALSE(doc.read() || doc.write() || doc.write(m_path));  // no file, no tree
  ASSERT_TRUE(Parse(doc, "<a/>"));
  EXPECT_FALSE(doc.write("/nonexistent-dir/x.xml"));
  SetContents("<broken>");
  XmlReaderWriter bad(m_path, XmlReaderWriter::OPEN_FILE | XmlReaderWriter::OPEN_READ);
  EXPECT_TRUE(bad.isFileOpened());
  EXPECT_FALSE(bad.isFileLoaded() || bad.isDocumentPresent());
}

}  // namespace
