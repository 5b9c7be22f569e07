// XML documents: parsing, hostile input, the writer, paths, file binding and the node API.
#include <gtest/gtest.h>

#include "XmlReaderWriter.h"
#include "log_test_util.h"

// A node exception reads as its message (see Thrown).
inline std::string ThrownText(const XmlReaderWriter::NodeException& e) {
  return e.getMessage();
}

namespace {

using Node = XmlReaderWriter::Node;
using NodeException = XmlReaderWriter::NodeException;

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?>\n\n";

bool Parse(XmlReaderWriter& doc, std::string text) {
  return doc.readFrom(&text[0], static_cast<unsigned>(text.size()));
}

std::string Serialized(const XmlReaderWriter& doc) {
  std::string out;
  EXPECT_TRUE(doc.toString(out));
  return out;
}

TEST(XmlParse, ContentsAttributesEntitiesAndEncodings) {
  XmlReaderWriter doc;
  ASSERT_TRUE(Parse(doc,
                    "<a z=\"1\" b=\"&lt;2&gt;\" m='3'> x <b>  hi </b> &#65;&amp;<![CDATA[<x>]]>"
                    " <c> </c><d/>\n z\t</a>"));
  Node root = doc.getRootNode();
  EXPECT_TRUE(root.value() == "x  A&<x> \n z" && root["b"].value() == "hi");
  EXPECT_FALSE(root["c"].hasValue() || root["d"].hasValue());
  ASSERT_EQ(root.getAttributeCount(), 3u);
  EXPECT_TRUE(root.attributeName(0) == "z" && root.attributeName(2) == "m");
  EXPECT_TRUE(root.attributeValue("b") == "<2>");
}

TEST(XmlWriter, GoldenSerialisationsAndEscaping) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\" standalone=\"yes\"?><r/>",
       "<?xml version=\"1.0\" encoding=\"ISO-8859-1\" standalone=\"yes\"?>\n\n<r>\n</r>\n"},
      {"<a x=\"1\"><b>t</b><c/></a>", kDecl + "<a x=\"1\">\n  <b>t</b>\n  <c/>\n</a>\n"},
  };
  for (const auto& c : cases) {
    XmlReaderWriter doc;
    ASSERT_TRUE(Parse(doc, c.in)) << c.in;
    EXPECT_EQ(Serialized(doc), c.out) << c.in;
  }
  XmlReaderWriter doc;
  doc.createDocument();
  doc.createRootNode("r");
  Node root = doc.getRootNode();
  root.value() = "a<b & c&amp;d&#39;e&#x27;";
  root.addAttribute("q", "\"it's\" <&>");
  EXPECT_EQ(
      root.toString(),
      "<r q=\"&quot;it&apos;s&quot; &lt;&amp;&gt;\">a&lt;b &amp; c&amp;d&#39;e&amp;#x27;</r>\n");
  EXPECT_EQ(XmlReaderWriter::encodeSpecialChar(nullptr), "");
}

// ISO-8859-1 and UTF-16 bytes of UTF-8 text (characters below U+0800).
std::string Recode(const std::string& utf8, const std::string& to) {
  if (to == "UTF-8" || to == "US-ASCII") return utf8;
  std::string out = to == "UTF-16" ? "\xFF\xFE" : "";
  for (size_t i = 0; i < utf8.size(); ++i) {
    unsigned c = static_cast<unsigned char>(utf8[i]);
    if (c >= 0x80) c = ((c & 0x1F) << 6) | (utf8[++i] & 0x3F);
    const char high = static_cast<char>(c >> 8), low = static_cast<char>(c & 0xFF);
    if (to == "ISO-8859-1") out += low;
    if (to == "UTF-16") out += std::string{low, high};
    if (to == "UTF-16BE") out += std::string{high, low};
  }
  return out;
}

// The document <r a="v"><c>v</c></r> in the bytes of the `encoding` it
// declares, as read (without layout) or as the writer lays it out.
std::string Document(const std::string& encoding, const std::string& v, bool written) {
  const std::string declaration = "<?xml version=\"1.0\" encoding=\"" + encoding + "\"";
  if (!written) return Recode(declaration + "?><r a='" + v + "'><c>" + v + "</c></r>", encoding);
  return Recode(
      declaration + " standalone=\"no\"?>\n\n<r a=\"" + v + "\">\n  <c>" + v + "</c>\n</r>\n",
      encoding);
}

// A document is written in the encoding it declares and reads back to the
// same text; characters the encoding lacks become references, characters XML
// does not allow become U+FFFD, and bytes that are no UTF-8 read as Latin-1.
TEST(XmlWriter, WritesTheEncodingItDeclaresAndOnlyCharactersXmlAllows) {
  const std::string cafe = "caf\xc3\xa9", euro = "\xe2\x82\xac", fffd = "\xef\xbf\xbd";
  const struct {
    std::string encoding, set, stored, written;  // written: before recoding
  } cases[] = {{"ISO-8859-1", euro + cafe, euro + cafe, "&#8364;" + cafe},
               {"US-ASCII", cafe, cafe, "caf&#233;"},
               {"UTF-16", cafe, cafe, cafe},
               {"UTF-16BE", cafe, cafe, cafe},
               {"UTF-8", "a\001\037b\xe9", "a" + fffd + fffd + "b\xc3\xa9",
                "a" + fffd + fffd + "b\xc3\xa9"}};
  for (const auto& c : cases) {
    XmlReaderWriter doc;
    ASSERT_TRUE(Parse(doc, Document(c.encoding, "cafe", false))) << c.encoding;
    doc.getRootNode()["c"].value() = c.set;
    doc.getRootNode().attributeValue("a") = c.set;
    const std::string written = Serialized(doc);
    EXPECT_EQ(Document(c.encoding, c.written, true), written) << c.encoding;
    XmlReaderWriter again;
    ASSERT_TRUE(Parse(again, written)) << c.encoding;
    EXPECT_TRUE(again.getRootNode()["c"].value() == c.stored) << c.encoding;
    EXPECT_TRUE(again.getRootNode().attributeValue("a") == c.stored) << c.encoding;
  }
  // Names the parser takes are written (here ASCII letters at both ends of
  // their ranges, U+00B5, U+00B7 and U+00C0 in ISO-8859-1, a digit 0); a name
  // that is no XML name, or one the encoding cannot carry, is not.
  const std::string names = "<Az \xb5\xb7=\"1\" Za=\"2\" az=\"3\" za0=\"4\" \xc0=\"5\"";
  XmlReaderWriter latin;
  ASSERT_TRUE(Parse(latin, "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>" + names + "/>"));
  EXPECT_NE(Serialized(latin).find(names + ">"), std::string::npos);
  const std::pair<const char*, const char*> refused[] = {
      {"US-ASCII", "a b"}, {"US-ASCII", "a\x01"},       {"US-ASCII", "1a"},
      {"US-ASCII", ""},    {"US-ASCII", "caf\xc3\xa9"}, {"ISO-8859-1", "\xc3\x97"}};  // U+00D7
  for (const auto& [encoding, name] : refused) {
    XmlReaderWriter doc;
    ASSERT_TRUE(Parse(doc, Document(encoding, "x", false)));
    doc.getRootNode()["c"].name() = name;
    std::string written;
    EXPECT_FALSE(doc.toString(written) || doc.write(::testing::TempDir() + "never.xml")) << name;
  }
}

TEST(XmlParse, MalformedOrTruncatedInputLeavesNoTree) {
  const std::string good = "<?xml version=\"1.0\"?><a x='1'><b>t&amp;</b><!--c--><![CDATA[d]]></a>";
  std::vector<std::string> bad = {"<a/><b/>", "<a>&undefined;</a>", "<a>\xff</a>"};
  for (size_t cut = 0; cut < good.size(); ++cut) bad.push_back(good.substr(0, cut));
  XmlReaderWriter doc;
  for (const std::string& text : bad) {
    ASSERT_TRUE(Parse(doc, good));
    EXPECT_FALSE(Parse(doc, text) || doc.isDocumentPresent()) << text;
  }
  std::string out;
  ASSERT_FALSE(Parse(doc, "<a"));
  EXPECT_FALSE(doc.toString(out) || doc.readFrom(nullptr, 10));
  EXPECT_EQ(Thrown<NodeException>([&] { doc.getRootNode(); }), "NULL XML document object");
}

TEST(XmlHostile, EntitiesAreNeitherExpandedNorLoaded) {
  std::string bomb = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY l0 \"lollollollollol\">";
  for (int i = 1; i < 10; ++i) {
    bomb += "<!ENTITY l" + std::to_string(i) + " \"";
    for (int j = 0; j < 10; ++j) bomb += "&l" + std::to_string(i - 1) + ";";
    bomb += "\">";
  }
  XmlReaderWriter doc;
  EXPECT_FALSE(Parse(doc, bomb + "]><l a=\"&l8;\">&l9;</l>"));
  ASSERT_TRUE(Parse(doc,
                    "<!DOCTYPE a [<!ENTITY e SYSTEM \"file:///etc/hostname\"><!ENTITY % p "
                    "SYSTEM \"file:///etc/hostname\"> %p;]><a>&e;</a>"));
  EXPECT_FALSE(doc.getRootNode().hasValue());  // the references are skipped, not resolved
}

TEST(XmlHostile, DepthIsBoundedWhenParsedAndUnboundedWhenBuilt) {
  std::string open, close;
  for (int i = 0; i < XmlTree::kMaxDepth; ++i) open += "<e>";
  for (int i = 0; i < XmlTree::kMaxDepth; ++i) close += "</e>";
  XmlReaderWriter doc;
  ASSERT_TRUE(Parse(doc, open + close));
  EXPECT_FALSE(Parse(doc, "<e>" + open + close + "</e>"));

  // A tree built by hand may be far deeper: writing and freeing it must not recurse.
  doc.createDocument();
  ASSERT_TRUE(doc.createRootNode("r"));
  const int depth = 100000, tail = 2000;
  Node node = doc.getRootNode(), subtree;
  for (int i = 0; i < depth; ++i) {
    node = node.addChild("n", "");
    if (i == depth - tail) subtree = node;
  }
  node.value() = "leaf";
  const std::string out = subtree.toString();
  EXPECT_EQ(out.rfind("<n>\n  <n>\n", 0), 0u);
  EXPECT_NE(out.find(std::string(2 * (tail - 1), ' ') + "<n>leaf</n>\n"), std::string::npos);
}  // freed with the document

// The file binding, which nothing in the system uses: a document written,
// changed in place through its open file, and a lock another holder respects.
TEST(XmlFile, WritesReadsAndLocks) {
  LogTempDir dir;
  const std::string path = dir.file("x.xml");
  using X = XmlReaderWriter;
  XmlReaderWriter doc;
  ASSERT_TRUE(Parse(doc, "<cfg><item k=\"1\">a much longer text than the result</item></cfg>"));
  EXPECT_FALSE(doc.write("/nonexistent-dir/x.xml"));
  ASSERT_TRUE(doc.write(path));
  X own(path, X::OPEN_FILE | X::OPEN_READ);
  own.getRootNode()["item"].value() = "b";
  ASSERT_TRUE(own.write());
  EXPECT_EQ(LogReadFile(path), kDecl + "<cfg>\n  <item k=\"1\">b</item>\n</cfg>\n");
  X locked(path, X::OPEN_FILE | X::OPEN_LOCK), other(path, X::OPEN_FILE);
  EXPECT_FALSE(other.lock(false, false));  // exclusive is refused while shared is held
  EXPECT_TRUE(locked.unlock() && other.lock(false, false));
}

class XmlNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(Parse(m_doc,
                      "<root id=\"1a\" kind=\"x\"><item n=\"1\">one</item><other/><item n=\"2\">"
                      "two</item><num>-42</num><flag>No</flag><empty/></root>"));
    m_root = m_doc.getRootNode();
  }
  XmlReaderWriter m_doc;
  Node m_root;
};

// What the driver reads: children by name and index, attributes, values as
// text and numbers; in a read-only document a missing child is an error.
TEST_F(XmlNodeTest, ReadsChildrenAttributesAndValues) {
  EXPECT_TRUE(m_root.name() == "root" && m_root.getChildrenCount() == 6u);
  EXPECT_TRUE(m_root[2u].attributeValue("n") == "2" && m_root["item"].value() == "one");
  EXPECT_TRUE(m_root.isAttribute("kind") && !m_root.isAttribute("Kind"));
  EXPECT_TRUE(m_root.hasChild("num") && !m_root.hasChild("nu"));
  EXPECT_EQ(static_cast<long>(m_root["num"].value()), -42L);
  EXPECT_TRUE(std::string(m_root["empty"].value()).empty() && !m_root["empty"].hasValue());
  EXPECT_FALSE(m_root["empty"].value() == "");  // no text is not an empty text
  EXPECT_EQ(Thrown<NodeException>([&] { m_root["gone"]; }), "Unable to find child node 'gone'.");
  EXPECT_EQ(Thrown<NodeException>([&] { m_root[6u]; }), "Unable to find child node.");
  EXPECT_EQ(Thrown<NodeException>([&] { m_root.attributeValue("x"); }),
            "No attribute by given name.");
  EXPECT_TRUE(m_root.getChildrenCount() == 6u && m_root.getAttributeCount() == 2u);  // no growth
}

// The rest of the node API, which the system itself does not call: cursors,
// siblings, paths, edits, growth of a mutable document and conversions.
TEST_F(XmlNodeTest, WalksEditsAndConverts) {
  std::string names;
  while (m_root.nextChildNode()) names += std::string(m_root.childNode().name()) + ",";
  EXPECT_EQ(names, "item,other,item,num,flag,empty,");
  EXPECT_EQ(Thrown<NodeException>([&] { m_root["empty"].childNode(); }), "NULL child node.");
  EXPECT_TRUE(m_root["other"].rightSibling("").value() == "two");
  EXPECT_TRUE(m_doc.isNode(2, "root", "num") && !m_doc.isNode({"root", "num", "x"}));
  m_doc.createDocumentPath(3, "root", "new", "leaf").value() = "v";
  EXPECT_TRUE(m_doc.getNode(3, "ignored", "new", "leaf").value() == "v");

  EXPECT_TRUE(m_root.isAttributeValue("kind", "x") && !m_root.delAttribute("kind", "y"));
  EXPECT_TRUE(m_root.delAttribute("kind", "x") && !m_root.isAttribute("kind"));
  m_root["num"];  // the cursor is on the child removed next
  EXPECT_TRUE(m_root.delChild("num") && m_root.childNode().name() == "item");
  EXPECT_EQ(Thrown<NodeException>([&] { m_root.addChild("", "x"); }), "Unable to add new node.");
  m_doc.setMutable(true);
  EXPECT_TRUE(m_root["gone"].name() == "gone" && m_root.hasChild("gone"));

  XmlReaderWriter::NodeString flag = m_root["flag"].value();
  const std::pair<const char*, bool> truths[] = {{"No", false}, {"0", false}, {"", false},
                                                 {"1", true},   {"n", true},  {"yes", true}};
  for (const auto& [text, truth] : truths) {
    flag = text;
    EXPECT_EQ(static_cast<bool>(flag), truth) << text;
  }
  flag = -5;
  m_root.attributeValue("id") = 12ul;
  EXPECT_EQ(m_root.toString().rfind("<root id=\"12\">\n  <item n=\"1\">one</item>\n", 0), 0u);
  EXPECT_TRUE(m_root["flag"].value() == -5);
}

}  // namespace
