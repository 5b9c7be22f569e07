#ifndef QM_RUNTIME_QMSYSCODEC_H
#define QM_RUNTIME_QMSYSCODEC_H

#include <string>

// The escapings the protocols, web texts, log database filters and file names
// need: URL and percent encodings, XML and HTML entities, JSON and backslash
// escapes, base64. Stateless static functions, except for the process-wide
// narrowing of EncodeXmlData described there. Safe to call from any thread.
class QmsysCodec {
 public:
  QmsysCodec() = delete;

  // URL-safe characters (space, digits, ASCII letters, "_") are copied, the
  // space as "+"; every other byte becomes "%XX" (upper-case hex of the byte).
  static std::string EncodeUrl(const std::string& text);
  // "%XX" becomes the byte, "+" a space. A "%" with fewer than two characters
  // after it makes the whole result empty; "%" before non-hex text is copied.
  static std::string DecodeUrl(const std::string& text);

  // ASCII letters and digits are copied; any other byte is written as "%"
  // followed by the hex value of the byte taken as a SIGNED char, so a byte of
  // 0x80 or more comes out as eight digits ("%FFFFFFE9" for 0xE9). Callers
  // and stored names depend on this wide form: do not narrow it.
  static std::string EncodeName(const std::string& text);
  static std::string EncodeFileName(const std::string& text);
  // Inverses of the above; accept both the two- and the eight-digit form.
  static std::string DecodeName(const std::string& text);
  static std::string DecodeFileName(const std::string& text);

  // Percent-encodes `src` into `dst` of `size` bytes, always terminated.
  // Letters, digits, "/", "_" and "." are copied; a line feed without a
  // carriage return before it gets "%0D" first; other bytes are written in
  // the signed form of EncodeName. Stops once the output length plus 4
  // reaches `size`, or when the next piece would not fit. Does nothing when
  // `size` is below 5 or `src` is empty. Returns the output length.
  static int QmhttpStrEncode(char* dst, int size, const char* src);

  // Web input entities: & &amp;  > &gt;  < &lt;  ' &#x27;  " &quot;  | &#x7C;
  // tab &#x09;  CR &#x0D;  LF &#x0A;  space &nbsp; (the space is left as it is
  // when `keepSpaces`). Every "&" is encoded, also one that begins an entity.
  static std::string EncodeWebInputData(const std::string& text, bool keepSpaces);
  // The reverse, "&amp;" decoded last; "&nbsp;" is kept when `keepSpaces`.
  static std::string DecodeWebInputData(const std::string& text, bool keepSpaces);
  // EncodeWebInputData, then EscapeBackslash.
  static std::string EncodeWebInputAndEscapeBackSlash(const std::string& text, bool keepSpaces);

  // XML data entities: & &amp;  > &gt;  < &lt;  ' &apos;  " &quot;  tab &#x9;
  // LF &#xa;  CR &#xd;. Each character is replaced on its own, so an "&" that
  // already begins an entity is encoded again.
  //
  // DELIBERATE, PROCESS-WIDE, ONE-WAY: the set of characters encoded is shared
  // by the whole process. The first call with `full` false narrows it for good
  // to "&", ">" and "<"; from then on every call, also with `full` true,
  // encodes only those three. Existing callers rely on this; do not "fix" it.
  static std::string EncodeXmlData(const std::string& text, bool full);
  // Host text made fit for the content of an element in an XML document that
  // declares `encoding`, whatever its bytes. Text that is valid UTF-8 is read
  // as UTF-8, any other text as ISO-8859-1. With `dataEntities` the text is
  // escaped as EncodeXmlData(text, true) escapes it; otherwise "&", "<", ">"
  // and the carriage return become entities. A character XML 1.0 does not
  // allow (control characters other than tab, LF and CR, U+FFFE, U+FFFF)
  // becomes "?". For an "ISO-8859-1" document (any letter case) characters up
  // to U+00FF are written as their byte and the others as a character
  // reference "&#x...;"; for any other declared encoding the text is written
  // as UTF-8. ASCII text that needs no escaping comes out unchanged.
  static std::string EncodeXmlText(const std::string& text, const std::string& encoding,
                                   bool dataEntities);
  // Reverse of the XML data entities (all eight, whatever the narrowing).
  static std::string DecodeXmlData(const std::string& text);
  // Escapes text for XML content: "&", "<" and ">" always, and with
  // `forAttribute` also '"' and "'". Unaffected by the narrowing above.
  // DecodeXmlData reverses it.
  static std::string EncodeXML(const std::string& text, bool forAttribute);

  // CR LF, then lone LF, then with `flag` the text "&#x0A;", become "<br>";
  // then '"' becomes "&quot;".
  static std::string EncodeHTML(const std::string& text, bool flag);
  // "<br>" becomes a line feed.
  static std::string DecodeHTML(const std::string& text);
  // CR LF, then lone LF, become "<br>".
  static std::string EncodeNewLineCharacters(const std::string& text);
  // CR <-> "<CR>", LF <-> "<LF>".
  static std::string EncodeMultiLineData(const std::string& text);
  static std::string DecodeMultiLineData(const std::string& text);

  // Backslash, '"', LF, CR and tab as \\ \" \n \r \t.
  static std::string EscapeJsonString(const std::string& text);
  // The reverse; also understands \/ \b \f and \uXXXX (written as UTF-8,
  // surrogate pairs joined). Unknown or cut escapes are kept as they are.
  static std::string UnescapeJsonString(const std::string& text);
  // Escapes escaped JSON once more: \\ becomes four backslashes, \" becomes
  // three backslashes and a quote.
  static std::string EscapeInternalJSON(const std::string& text);
  // Turns the escapes "\u003c" and "\u003e" back into "<" and ">".
  static std::string EncodeUnicodeCharacters(const std::string& text);
  // Doubles every backslash / turns every pair back into one.
  static std::string EscapeBackslash(const std::string& text);
  static std::string UnescapeBackslash(const std::string& text);
  // Removes apostrophes, double quotes, CR and LF (text for speech output).
  static std::string EscapeTTSData(const std::string& text);
  // A backslash before every "_" and "\" (SQL LIKE patterns).
  static std::string EncodeDBFilterInput(const std::string& text);

  // Standard base64 with "=" padding; with `lineBreaks`, CR LF after every 76
  // output characters. Null or empty input gives an empty result.
  static void EncodeBase64(const unsigned char* data, int length, std::string& out,
                           bool lineBreaks);
  static std::string EncodeBase64(const unsigned char* data, int length, bool lineBreaks);
  // Decodes `length` characters of `buffer` in place and sets `length` to the
  // bytes produced. Whitespace is skipped, "=" ends the data; other characters
  // outside the alphabet are skipped and make the result false. Bits left over
  // that do not fill a byte are dropped. Empty input is valid.
  static bool DecodeBase64(char* buffer, int& length);
};

#endif
