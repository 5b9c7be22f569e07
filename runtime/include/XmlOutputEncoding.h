#ifndef QM_RUNTIME_XMLOUTPUTENCODING_H
#define QM_RUNTIME_XMLOUTPUTENCODING_H

#include <string>

// The character encoding a document is written in, and the rules that keep
// the writer's output readable in it. The writer assembles its text in
// UTF-8 through appendName and appendText, which hold every character to
// what the encoding can carry, and encode then turns that text into the
// document's bytes. A value type; holds only the encoding chosen.
class XmlOutputEncoding {
 public:
  // The encoding a declaration names, without regard to case: "UTF-8",
  // "UTF-16" (written little-endian after a byte order mark), "UTF-16LE",
  // "UTF-16BE", "ISO-8859-1" or "US-ASCII". No name, or any other name,
  // means UTF-8, which is then also what the declaration says.
  explicit XmlOutputEncoding(const char* name);

  // The encoding name for the declaration.
  const std::string& declaredName() const { return m_declaredName; }
  // Appends `name` (an element or attribute name held as UTF-8); false when
  // it is no XML name (empty, a control character, white space or markup
  // in it, or a digit, "-" or "." first) or the encoding cannot carry it,
  // in which case what was appended cannot be read back.
  bool appendName(const std::string& name, std::string& out) const;
  // Appends contents or an attribute value already escaped for markup.
  // Bytes that are no UTF-8 are taken as ISO-8859-1 characters; characters
  // XML 1.0 does not allow (control characters other than tab, line feed
  // and carriage return) become U+FFFD; characters the encoding cannot
  // carry are written as character references.
  void appendText(const std::string& text, std::string& out) const;
  // The bytes of `utf8` (as built by the two calls above) in the encoding.
  std::string encode(const std::string& utf8) const;

 private:
  enum Form { UTF8, UTF16_BOM, UTF16LE, UTF16BE, LATIN1, ASCII };

  Form m_form = UTF8;
  std::string m_declaredName;
  unsigned long m_limit = 0x10FFFF;  // the highest character written as itself
};

#endif
