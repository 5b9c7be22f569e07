#ifndef QM_OAP_OAPDOCUMENTFRAMER_H
#define QM_OAP_OAPDOCUMENTFRAMER_H

#include <cstddef>
#include <string>

// Cuts a byte stream into whole OAP documents, however the stream was split
// into reads. A document may begin with white space, a byte-order mark, an
// XML declaration or comment, and ends with the end tag of its root element,
// "</OAP-request>" or "</OAP-response>" (white space allowed before the
// ">"), also when that tag is split across reads. White space and NUL bytes
// between documents are dropped; bytes after a document stay for the next.
// Used by the inbound connection handler and by the outbound exchange. Not
// thread-safe: one framer per connection.
class OAPDocumentFramer {
 public:
  enum Result {
    kNeedMore,  // no whole document yet
    kDocument,  // a whole document was taken out
    kInvalid,   // the pending bytes cannot begin a document
    kTooLong,   // more than kMaxDocument bytes without a whole document
  };
  static constexpr std::size_t kMaxDocument = 64 * 1024;

  void Append(const std::string& bytes) { m_buffer += bytes; }
  // Takes the next whole document out into `document`, or says why there
  // is none.
  Result Next(std::string& document);
  // The bytes of a document begun but not finished; they are taken out.
  std::string TakeRest();
  // Whether a document has begun and is not finished.
  bool HasRest();

 private:
  void DropSeparators();
  bool CanBeginDocument() const;
  // The end of the first root end tag from the scan position on;
  // std::string::npos when there is none yet.
  std::size_t FindDocumentEnd();

  std::string m_buffer;
  // Where the search for the end tag goes on; earlier bytes hold none.
  std::size_t m_scanned = 0;
};

#endif
