// The node API and NodeString over parsed and built documents.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "XmlReaderWriter.h"

namespace {

using Node = XmlReaderWriter::Node;
using NodeString = XmlReaderWriter::NodeString;
using NodeException = XmlReaderWriter::NodeException;

const char kSample[] =
    "<root id=\"1a\" kind=\"x\"><item n=\"1\">one</item><other/><item n=\"2\">two</item>"
    "<num>-42</num><flag>No</flag><real>2.5</real><empty/></root>";

class XmlNodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string text = kSample;
    ASSERT_TRUE(m_doc.readFrom(&text[0], static_cast<unsigned>(text.size())));
    m_root = m_doc.getRootNode();
  }

  // Runs `action` and returns the message it threw, or "<no exception>".
  static std::string Thrown(const std::function<void()>& action) {
    try {
      action();
    } catch (const NodeException& e) {
      return e.getMessage();
    }
    return "<no exception>";
  }

  XmlReaderWriter m_doc;
  Node m_root;
};

TEST_F(XmlNodeTest, ReadsWhatProtocolParsersUse) {
  EXPECT_TRUE(m_root.name() == "root");
  EXPECT_TRUE(m_root.attributeValue("id") == "1a");
  EXPECT_TRUE(m_root.isAttribute("kind"));
  EXPECT_FALSE(m_root.isAttribute("Kind"));
  EXPECT_TRUE(m_root.hasChild("num"));
  EXPECT_FALSE(m_root.hasChild("nu"));
  EXPECT_EQ(m_root.getChildrenCount(), 7u);
  EXPECT_EQ(m_root.getSameChildrenCount("item"), 2u);
  EXPECT_TRUE(m_root[0u].name() == "item");
  EXPECT_TRUE(m_root.getChildNode("item", 1).attributeValue("n") == "2");
  EXPECT_TRUE(m_root.getChildNode(3).value() == -42);
  std::string text = m_root["item"].value();
  EXPECT_EQ(text, "one");
  int number = m_root["num"].value();
  EXPECT_EQ(number, -42);
  unsigned long id = m_root.attributeValue("kind");
  EXPECT_EQ(id, 0ul);
  EXPECT_TRUE(m_root.isChildValue("item", "one"));
  EXPECT_FALSE(m_root.isChildValue("item", "two"));
  EXPECT_TRUE(m_root.isAttributeValue("kind", "x"));
  EXPECT_TRUE(m_root["item"] == "item");
}

TEST_F(XmlNodeTest, WalksChildrenSiblingsAndAttributesWithCursors) {
  std::vector<std::string> names;
  while (m_root.nextChildNode()) names.push_back(m_root.childNode().name());
  EXPECT_EQ(names,
            (std::vector<std::string>{"item", "other", "item", "num", "flag", "real", "empty"}));
  EXPECT_TRUE(m_root.childNode().name() == "item");  // cursor ran off: first child again
  m_root["num"];
  EXPECT_TRUE(m_root.childNode().name() == "num");

  Node other = m_root["other"];
  EXPECT_TRUE(other.rightSibling("").value() == "two");
  EXPECT_TRUE(other.rightSibling("empty").name() == "empty");
  EXPECT_TRUE(other.leftSibling("item").value() == "one");
  EXPECT_TRUE(other.isRightSibling("real") && !other.isRightSibling("other"));
  EXPECT_TRUE(other.isLeftSibling("") && !other.isLeftSibling("num"));
  EXPECT_TRUE(other.parentNode() == m_root);
  EXPECT_TRUE(other.isParentNode() && !m_root.isParentNode());

  std::vector<std::string> attributes;
  while (m_root.nextAttribute()) {
    attributes.push_back(std::string(m_root.attributeName()) + "=" +
                         std::string(m_root.attributeValue()));
  }
  EXPECT_EQ(attributes, (std::vector<std::string>{"id=1a", "kind=x"}));
  EXPECT_TRUE(m_root.attributeName(1) == "kind");
  EXPECT_TRUE(m_root.attributeValue() == "x");
}

TEST_F(XmlNodeTest, ReadOnlyDocumentThrowsTheDefinedTexts) {
  Node first = m_root[0u];
  Node last = m_root["empty"];
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {[&] { m_root["gone"]; }, "Unable to find child node 'gone'."},
      {[&] { m_root[7u]; }, "Unable to find child node."},
      {[&] { m_root.getChildNode(-1); }, "Unable to find child node."},
      {[&] { m_root.getChildNode("item", 2); }, "Unable to find child node."},
      {[&] { last.childNode(); }, "NULL child node."},
      {[&] { m_root.parentNode(); }, "Root node, NULL parent."},
      {[&] { last.rightSibling(""); }, "Last node, NULL next sibling."},
      {[&] { first.rightSibling("nothing"); }, "NULL next sibling with given name."},
      {[&] { first.leftSibling(""); }, "First node, NULL previous sibling."},
      {[&] { last.leftSibling("nothing"); }, "NULL previous sibling with given name."},
      {[&] { m_root.attributeValue("nope"); }, "No attribute by given name."},
      {[&] { m_root.attributeValue(2); }, "No attribute at given index."},
      {[&] { m_root.attributeName(-1); }, "No attribute at given index."},
      {[&] { first.attributeName(); }, "No attribute."},
      {[&] { last.attributeValue(); }, "No attribute."},
      {[&] { m_root.delChild(-1); }, "Child node index out of bound."},
      {[&] { m_root.addChild("", "x"); }, "Unable to add new node."},
  };
  for (const auto& c : cases) EXPECT_EQ(Thrown(c.first), c.second);
  EXPECT_EQ(m_root.getChildrenCount(), 7u);
  EXPECT_EQ(m_root.getAttributeCount(), 2u);
}

TEST_F(XmlNodeTest, MutableDocumentGrowsInsteadOfThrowing) {
  m_doc.setMutable(true);
  Node gone = m_root["gone"];
  EXPECT_TRUE(gone.name() == "gone" && !gone.hasValue());
  EXPECT_EQ(m_root.getChildrenCount(), 8u);
  EXPECT_TRUE(m_root.childNode() == gone);      // the new child is the cursor
  Node third = m_root.getChildNode("item", 5);  // one new child, whatever the index
  EXPECT_EQ(m_root.getSameChildrenCount("item"), 3u);
  EXPECT_FALSE(third.isRightSibling(""));  // appended at the end
  EXPECT_TRUE(m_root.attributeValue("new") == "");
  EXPECT_TRUE(m_root.attributeName(2) == "new");
  EXPECT_EQ(Thrown([&] { m_root.attributeValue(""); }),
            "Unable to create new attribute by given name.");
}

TEST_F(XmlNodeTest, ChangesChildrenAndAttributes) {
  Node added = m_root.addChild("item", "three");
  EXPECT_TRUE(added.value() == "three");
  EXPECT_TRUE(m_root.addAttribute("kind", "y"));  // replaces in place
  EXPECT_TRUE(m_root.attributeName(1) == "kind" && m_root.attributeValue(1) == "y");
  EXPECT_FALSE(m_root.delAttribute("kind", "x"));
  EXPECT_TRUE(m_root.delAttribute("kind", "y"));
  EXPECT_FALSE(m_root.delAttribute("kind"));
  EXPECT_TRUE(m_root.delAttribute("id"));
  m_root.addAttribute("a", "1");
  m_root.delAllAttributes();
  EXPECT_EQ(m_root.getAttributeCount(), 0u);

  EXPECT_TRUE(m_root.delChild("item", "two"));
  EXPECT_FALSE(m_root.delChild("item", "two"));
  EXPECT_TRUE(m_root.delChild("item"));
  EXPECT_TRUE(m_root[m_root.getChildrenCount() - 1].value() == "three");
  EXPECT_TRUE(m_root.delChild(0));  // "other"
  EXPECT_FALSE(m_root.delChild(99));
  EXPECT_TRUE(m_root[0u].name() == "num");
  EXPECT_TRUE(m_root["num"].rightSibling("").name() == "flag");  // siblings renumbered
  m_root.addChild("num", "");
  EXPECT_EQ(m_root.delSameChildren("num"), 2u);
  m_root.delAllChildren();
  EXPECT_EQ(m_root.getChildrenCount(), 0u);
  EXPECT_FALSE(m_root.nextChildNode());
  EXPECT_EQ(m_root.toString(), "<root>\n</root>\n");
}

TEST_F(XmlNodeTest, ComparesNodesByNameContentsAndAttributes) {
  m_doc.setMutable(true);
  Node one = m_root["item"];
  Node copy = m_root.addChild("item", "one");
  EXPECT_FALSE(one == copy);  // attribute counts differ
  copy.addAttribute("n", "1");
  EXPECT_TRUE(one == copy);
  copy.attributeValue("n") = "2";
  EXPECT_FALSE(one == copy);
  EXPECT_TRUE(Node::getDummyNode("item", "x") == Node("item", "x"));
  EXPECT_FALSE(Node("item", "x") == Node("item", "y"));
  EXPECT_TRUE(m_root["empty"].isValue(""));
}

TEST_F(XmlNodeTest, DetachedNodesOnlyKnowTheirOwnElement) {
  Node none;
  Node dummy("d", "v");
  EXPECT_EQ(Thrown([&] { none.name(); }), "NULL node or node name.");
  EXPECT_EQ(Thrown([&] { none.value(); }), "NULL node or node name.");
  EXPECT_TRUE(dummy.name() == "d" && dummy.value() == "v" && dummy.hasValue());
  EXPECT_EQ(dummy.toString(), "<d>v</d>\n");
  for (Node* node : {&none, &dummy}) {
    const std::vector<std::function<void()>> actions = {
        [&] { (*node)["x"]; },
        [&] { (*node)[0u]; },
        [&] { node->childNode(); },
        [&] { node->nextChildNode(); },
        [&] { node->getChildrenCount(); },
        [&] { node->parentNode(); },
        [&] { node->rightSibling(""); },
        [&] { node->attributeValue("x"); },
        [&] { node->nextAttribute(); },
        [&] { node->isAttribute("x"); },
        [&] { node->addChild("x", ""); },
        [&] { node->delAllChildren(); },
    };
    for (const auto& action : actions) {
      EXPECT_EQ(Thrown(action), "Not an actual node in the XML tree.");
    }
  }
}

TEST_F(XmlNodeTest, NodeStringConvertsAbsentAndPresentText) {
  NodeString absent = m_root["empty"].value();
  EXPECT_EQ(static_cast<char*>(absent), nullptr);
  EXPECT_EQ(std::string(absent), "");
  EXPECT_EQ(static_cast<int>(absent), 0);
  EXPECT_EQ(static_cast<double>(absent), 0.0);
  EXPECT_FALSE(static_cast<bool>(absent));
  EXPECT_TRUE(absent == static_cast<const char*>(nullptr));
  EXPECT_FALSE(absent == "");
  EXPECT_TRUE(absent != "x");

  EXPECT_EQ(static_cast<long>(m_root["num"].value()), -42L);
  EXPECT_EQ(static_cast<unsigned int>(m_root["item"].attributeValue("n")), 1u);
  EXPECT_FLOAT_EQ(static_cast<float>(m_root["real"].value()), 2.5f);
  EXPECT_TRUE(m_root["real"].value() == 2.5);
  EXPECT_TRUE(m_root["num"].value() == -42L);
  EXPECT_TRUE(m_root["flag"].value() == false);
  EXPECT_TRUE(m_root["item"].value() == true);
  EXPECT_TRUE(m_root["item"].value() == std::string("one"));
  EXPECT_TRUE(m_root["item"].value() != std::string("two"));

  NodeString flag = m_root["flag"].value();
  for (const char* falsy : {"false", "FALSE", "0", "no", "nO", ""}) {
    flag = falsy;
    EXPECT_FALSE(static_cast<bool>(flag)) << falsy;
  }
  for (const char* truthy : {"true", "yes", "1", "00", "n"}) {
    flag = truthy;
    EXPECT_TRUE(static_cast<bool>(flag)) << truthy;
  }
}

TEST_F(XmlNodeTest, NodeStringAssignmentsWriteIntoTheTree) {
  Node num = m_root["num"];
  NodeString value = num.value();
  value = 70000u;
  EXPECT_TRUE(num.value() == "4464");
  value = -5;
  EXPECT_TRUE(num.value() == "-5");
  value = 1.5;
  EXPECT_TRUE(num.value() == "1.500000");
  value = 0.25f;
  EXPECT_TRUE(num.value() == "0.250000");
  value = -7L;
  EXPECT_TRUE(num.value() == "-7");
  value = 4294967295ul;
  EXPECT_TRUE(num.value() == "4294967295");
  value = true;
  EXPECT_TRUE(num.value() == "true");
  value = std::string("s");
  EXPECT_TRUE(num.value() == "s");
  value = m_root["item"].value();  // copy assignment writes the other text
  EXPECT_TRUE(num.value() == "one");
  EXPECT_TRUE(m_root["item"].value() == "one");

  num.name() = "count";
  EXPECT_TRUE(m_root.hasChild("count") && !m_root.hasChild("num"));
  m_root.attributeName(0) = "ident";
  m_root.attributeValue("ident") = 12ul;
  EXPECT_EQ(m_root.toString().rfind("<root ident=\"12\" kind=\"x\">\n", 0), 0u);
  EXPECT_EQ(Thrown([&] { value = static_cast<const char*>(nullptr); }),
            "NULL assignment to node string Lvalue.");
}

TEST_F(XmlNodeTest, NodeStringOnNothingThrows) {
  NodeString nothing;
  const std::vector<std::function<void()>> uses = {
      [&] { static_cast<void>(static_cast<char*>(nothing)); },
      [&] { static_cast<void>(std::string(nothing)); },
      [&] { static_cast<void>(static_cast<unsigned long>(nothing)); },
      [&] { static_cast<void>(static_cast<bool>(nothing)); },
      [&] { static_cast<void>(nothing == "x"); },
      [&] { nothing = "x"; },
      [&] { nothing = 1; },
      [&] { nothing = m_root.name(); },
  };
  for (const auto& use : uses) EXPECT_EQ(Thrown(use), "NULL node string.");

  XmlElement element("e");
  NodeString wrongKind(3, &element, nullptr, NodeString::PART_NAME);
  EXPECT_EQ(Thrown([&] { wrongKind = "x"; }), "Unwanted exception at node string assignment.");
  EXPECT_EQ(Thrown([&] { wrongKind = 3; }), "Unwanted exception at node int assignment.");
  NodeString wrongPart(NodeString::KIND_ATTRIBUTE, &element, nullptr, NodeString::PART_VALUE);
  EXPECT_EQ(Thrown([&] { wrongPart = true; }), "Unwanted exception at node int assignment.");
  EXPECT_EQ(element.name(), "e");
}

TEST(XmlNodeException, FormatsAndCutsItsMessage) {
  EXPECT_EQ(NodeException().getMessage(), "Some error occurred.");
  EXPECT_EQ(NodeException("%s-%d", "a", 7).getMessage(), "a-7");
  const std::string longText(5000, 'z');
  EXPECT_EQ(NodeException("%s", longText.c_str()).getMessage(), std::string(2047, 'z'));
}

}  // namespace
