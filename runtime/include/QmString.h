#ifndef QM_RUNTIME_QMSTRING_H
#define QM_RUNTIME_QMSTRING_H

#include <cstdarg>
#include <cstddef>
#include <string>

// Small string helpers of the runtime.

// printf-style formatting into a string of any length.
std::string QmstringFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same with the arguments already collected; `args` is consumed.
std::string QmstringFormatV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

// Whitespace trimmed from both ends / one end.
std::string QmstringTrim(const std::string& text);
std::string QmstringTrimLeft(const std::string& text);
std::string QmstringTrimRight(const std::string& text);

// Case-insensitive (ASCII) comparison: <0, 0, >0 like strcasecmp.
int QmstringCompareNoCase(const std::string& a, const std::string& b);
bool QmstringEqualsNoCase(const std::string& a, const std::string& b);

// Every occurrence of `from` replaced by `to`.
std::string QmstringReplaceAll(const std::string& text, const std::string& from,
                               const std::string& to);

// Printable form of raw bytes for traffic traces: printable ASCII is kept,
// CR, LF and tab as \r \n \t, any other byte as \xHH.
std::string QmstringSafeByteString(const unsigned char* data, size_t length);
std::string QmstringSafeByteString(const std::string& data);

// Scans from the left for "%3": when the next letter is 'a' or 'A' the three
// characters become ":" and the scan goes on; at the first "%3" followed by
// anything else the scan stops and the rest is left as it is.
std::string QmstringReplaceColon(const std::string& text);

// Reads the text as a hexadecimal unsigned number through a stream in hex
// mode; text that does not start with a hex digit yields 0.
unsigned int QmHexStrToUInt(const std::string& text);

// Appends the UTF-8 bytes of a code point (up to U+10FFFF) to `out`.
void QmstringAppendUtf8(std::string& out, unsigned long codePoint);

#endif
