// The OAP message model: parsing a server's response beside a bare expat
// parse of the same bytes, and writing request documents.
#include <benchmark/benchmark.h>
#include <expat.h>

#include <memory>
#include <string>

#include "MessageBody.h"
#include "OAPBlock.h"
#include "OAPBlockHeader.h"
#include "OAPRequestBlock.h"
#include "OAXMLInterActiveMessageBody.h"
#include "OAXMLService.h"
#include "loopback_server.h"
#include "paired.h"

namespace {

void XMLCALL NoStart(void*, const XML_Char*, const XML_Char**) {}
void XMLCALL NoEnd(void*, const XML_Char*) {}
void XMLCALL NoText(void*, const XML_Char*, int) {}

void AddOption(MessageBody& body, const std::string& text, const std::string& dataResp) {
  MessageBody::Option option;
  option.text = text;
  option.dataResp = dataResp;
  body.options.push_back(option);
}

void FillMessage(MessageBody& body) {
  body.to = "1234";
  body.subjectText = "Lunch";
  body.bodyText = "Coming?";
  body.ttl = 300;
  AddOption(body, "Yes", "N:Yes");
  AddOption(body, "No", "F:No");
}

// An interactive request in version 3.0 (flat body) or 4.0 (OA-XML).
std::unique_ptr<OAPBlock> InteractiveRequest(bool version4) {
  auto block = std::make_unique<OAPRequestBlock>();
  block->version = version4 ? "4.0" : "3.0";
  block->encoding = version4 ? "UTF-8" : "ISO-8859-1";
  block->id = 0x1a0000;
  auto header = std::make_unique<OAPBlockHeader>();
  header->port = 7001;
  if (version4) {
    header->to = "1234";
    header->fromNumber = "5550100";
    header->deliveryStatus = true;
    auto content = std::make_unique<OAXMLInterActiveMessageBody>();
    FillMessage(*content);
    auto service = std::make_unique<OAXMLService>();
    service->id = block->id;
    service->content = content.release();
    block->SetBody(service.release());
  } else {
    header->ip = "127.0.0.1";
    auto body = std::make_unique<MessageBody>();
    FillMessage(*body);
    block->SetBody(body.release());
  }
  block->SetHeader(header.release());
  return block;
}

// Parses the answer into an element tree and a response block against a
// bare expat parse of the same bytes: a new parser with empty handlers.
void BM_ParseResponse(benchmark::State& state) {
  const std::string text = AcceptedResponse("1a0000");
  PairedRun run;
  run.callsPerBlock = 500;
  run.subject = [&] {
    std::unique_ptr<OAPBlock> block(OAPBlock::Parse(text));
    return block != nullptr;
  };
  run.baseline = [&] {
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetElementHandler(parser, NoStart, NoEnd);
    XML_SetCharacterDataHandler(parser, NoText);
    const bool parsed =
        XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return parsed;
  };
  run.failure = [] { return std::string("the response did not parse"); };
  RunPaired(state, run);
}

void BM_SerializeRequest(benchmark::State& state) {
  std::unique_ptr<OAPBlock> block = InteractiveRequest(state.range(0) == 4);
  for (auto _ : state) {
    std::string text = block->Serialize();
    benchmark::DoNotOptimize(text.data());
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_ParseResponse)->UseRealTime();
BENCHMARK(BM_SerializeRequest)->ArgName("version")->Arg(3)->Arg(4);
