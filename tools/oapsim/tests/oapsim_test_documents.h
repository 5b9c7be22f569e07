#ifndef QM_TOOLS_OAPSIM_TESTS_OAPSIM_TEST_DOCUMENTS_H
#define QM_TOOLS_OAPSIM_TESTS_OAPSIM_TEST_DOCUMENTS_H

// Requests as the driver writes them, shared by the simulator's tests.

#include <gtest/gtest.h>

#include <string>

// 3.0 interactive message #1a to handset 1234, driver listener port 7001.
inline const std::string kInteractive30 =
    "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<OAP-request version=\"3.0\" id=\"1a\">\n"
    "<Header>\n<IP>127.0.0.1</IP>\n<Port>7001</Port>\n</Header>\n"
    "<Body service=\"interactiveMessage\"><To>1234</To>\n"
    "<SubjectText>Hi &lt;there&gt;</SubjectText>\n<BodyText>Caf\xe9 open?</BodyText>\n"
    "<Priority>6</Priority>\n<AvailabilityStatus/><DeliveryStatus/><TTL>300</TTL>\n"
    "<Option id=\"1\">\n<Text>Yes</Text>\n<OnSelection>\n<CallNo method=\"\">555</CallNo>\n"
    "<DataResp>N:Yes</DataResp>\n</OnSelection>\n<FuncKeyId>A</FuncKeyId>\n</Option>\n"
    "<Option id=\"2\">\n<Text>Custom</Text>\n<OnSelection>\n<UserResponse>Other</UserResponse>\n"
    "</OnSelection>\n<FuncKeyId>C</FuncKeyId>\n</Option>\n</Body></OAP-request>";

// 4.0 interactive message #1a0001 to handset 5678, listener port 7002, with
// data, custom and close options.
inline const std::string kInteractive40 =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1a0001\">\n"
    "<Header>\n<Port>7002</Port>\n<To>5678</To>\n<DeliveryStatus/>\n</Header>\n"
    "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>1a0001</Id>\n"
    "<Interactive_Message>\n<Message>\n<Subject>Lunch</Subject>\n<Body>Caf\xc3\xa9?</Body>\n"
    "<Indication>\n<Beep>1</Beep>\n</Indication>\n<TTL>60</TTL>\n<Priority>6</Priority>\n"
    "</Message>\n<Sticky_mode>mode1</Sticky_mode>\n"
    "<Option>\n<ID>1</ID>\n<Text>No</Text>\n<Function_key_ID>A</Function_key_ID>\n"
    "<On_selection>\n<Data_response>F:No</Data_response>\n</On_selection>\n</Option>\n"
    "<Option>\n<ID>2</ID>\n<Text>Custom</Text>\n<Function_key_ID>A</Function_key_ID>\n"
    "<On_selection>\n<User_response>\n<Text_label>Say</Text_label>\n</User_response>\n"
    "</On_selection>\n</Option>\n"
    "<Option>\n<ID>3</ID>\n<Text>Close</Text>\n<Function_key_ID>C</Function_key_ID>\n"
    "<On_selection>\n<Close_message/>\n</On_selection>\n</Option>\n"
    "</Interactive_Message>\n</service>\n</Body>\n</OAP-request>";

// 4.0 update (request #1a0002) wiping the options of #1a0001.
inline const std::string kWipeUpdate40 =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<OAP-request version=\"4.0\" id=\"1a0002\">\n"
    "<Header>\n<Port>7002</Port>\n<To>5678</To>\n<DeliveryStatus/>\n</Header>\n"
    "<Body service=\"OA-XML\">\n<service version=\"1.0\">\n<Id>1a0001</Id>\n"
    "<Interactive_Message>\n<Message>\n<Body>Lunch?\n\nYou replied:\n-->>No</Body>\n"
    "<Indication>\n<Intensity>None</Intensity>\n</Indication> \n</Message>\n"
    "<Update>\n</Update>\n<Option/>\n</Interactive_Message>\n</service>\n</Body>\n</OAP-request>";

// Every occurrence replaced; the text must occur at least once.
inline std::string Replace(std::string text, const std::string& from, const std::string& to) {
  EXPECT_NE(text.find(from), std::string::npos) << from;
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

#endif
