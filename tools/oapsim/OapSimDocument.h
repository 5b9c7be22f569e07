#ifndef QM_TOOLS_OAPSIM_OAPSIMDOCUMENT_H
#define QM_TOOLS_OAPSIM_OAPSIMDOCUMENT_H

#include <cstdint>
#include <string>
#include <vector>

#include "OapSimXml.h"

// Checks one OAP-request received by the simulator, version 3.0 or 4.0,
// against the document shapes the server understands, and extracts what the
// simulated handset needs: recipient, texts, options, update flags and where
// the driver's own listener is. Stateless; the caller owns the result.
class OapSimDocument {
 public:
  struct Option {
    enum Kind { Data, Custom, Close };
    int number = 0;
    Kind kind = Data;
    std::string text;      // label shown on the handset
    std::string dataResp;  // data returned when chosen (Data options)
    std::string label;     // free-text prompt (Custom options)
    std::string callNo;
    std::string key;  // function key
  };

  struct Request {
    std::string version;  // "3.0" or "4.0" once known
    std::string idHex;    // root id as written, once it was found valid
    uint32_t id = 0;
    uint32_t tracking = 0;  // the message concerned: the 4.0 envelope Id, else the root id
    bool hasEnvelopeId = false;
    std::string handset;
    std::string listenerIp;  // 3.0 header IP
    int listenerPort = 0;
    std::string fromNumber;
    bool deliveryStatus = false;
    bool interactive = false;
    bool update = false;
    bool wipeOptions = false;  // explicit 4.0 wipe marker
    std::string subject;
    std::string text;
    std::vector<Option> options;
    std::vector<std::string> warnings;
  };

  // Outcome of a check: the status class 1 code to answer with on failure.
  struct Verdict {
    bool ok = false;
    int code = 200;
    std::string error;
  };

  static constexpr int kNotUnderstood = 403;
  static constexpr int kVersionMismatch = 408;

  // Checks the text; fills `out` as far as it got, even on failure (so the
  // answer can echo version and id).
  static Verdict Check(const std::string& text, Request& out);

  // Lower-case hexadecimal without prefix or padding, as ids are written.
  static bool ParseHexId(const std::string& text, uint32_t& value, std::string& error);
  static std::string HexId(uint32_t value);

 private:
  static void CheckDeclaration(const OapSimXml& xml, Request& out);
  static void CheckRoot(const OapSimXml::Element& root, Request& out);
  static void CheckHeader(const OapSimXml::Element& root, Request& out);
  static void CheckBody30(const OapSimXml::Element& body, Request& out);
  static void CheckOption30(const OapSimXml::Element& option, int number, Request& out);
  static void CheckBody40(const OapSimXml::Element& body, Request& out);
  static void CheckMessage40(const OapSimXml::Element& message, Request& out);
  static void CheckInteractive40(const OapSimXml::Element& interactive, Request& out);
  static void CheckOption40(const OapSimXml::Element& option, int number, Request& out);
};

#endif
