// Feeds the stream parser with arbitrary bytes in chunks and uses every message that comes out.
// The first byte of an input chooses the size of the chunks and whether the rest is the stream
// itself or one payload, which then gets its frame here.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "bus/message/PellInternalStreamParser.h"
#include "bus/message/RSPMessage.h"

namespace {

using namespace valtor;

void require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
  }
}

std::vector<PellInternalMessage> parsed(const std::string& stream, std::size_t chunk) {
  std::vector<PellInternalMessage> all;
  PellInternalStreamParser parser;
  parser.setMessageCallback([&all](std::vector<PellInternalMessage> messages) {
    require(!messages.empty(), "a callback has messages");
    std::move(messages.begin(), messages.end(), std::back_inserter(all));
  });
  for (std::size_t done = 0; done < stream.size(); done += chunk) {
    parser.parse(stream.data() + done, std::min(chunk, stream.size() - done));
  }
  return all;
}

// Whoever only looks at a message leaves its bytes alone.
void look(const PellInternalMessage& message) {
  const std::string before = message.encode();
  // A blank in front makes it another spelling than the one that is read without a tree.
  PellInternalHeader header;
  require(HeaderLine::decode(" " + std::string(message.receivedLine()), header) &&
              header.kind == message.getKind() && header.path == message.getPath() &&
              header.sourceConnID == message.header.sourceConnID &&
              header.sourceName == message.header.sourceName &&
              header.destConnID == message.header.destConnID &&
              header.destName == message.header.destName,
          "both ways to read a header line agree");
  require(message.isDecoded() && message.getDestConnID() >= 0, "only good headers pass");
  message.getSequence();
  elementsOfPath(message.getPath());
  require(RSPMessage(message, 404).header.destConnID == message.header.sourceConnID,
          "a response goes back");
  try {
    readResponseSummary(message);
  } catch (const std::exception&) {
    // Most messages are no responses.
  }
  require(message.encode() == before, "looking changes nothing");
}

// What is sent on is understood as the same message again, unless its header line was cut.
void sendOn(const PellInternalMessage& message) {
  const std::string line = message.headerLine();
  if (line.back() != '\n') {
    return;
  }
  const std::string payload = message.encode();
  const SharedFrame framed = frameOf(message, message.header.sourceConnID);
  const std::string stream(framed->data(), framed->size());
  require(stream == frame(payload), "every way of framing gives the same bytes");
  const std::vector<PellInternalMessage> again = parsed(stream, 7);
  require(again.size() == 1, "an encoded message is one message");
  require(again[0].getKind() == message.getKind() && again[0].getPath() == message.getPath() &&
              again[0].header.sourceConnID == message.header.sourceConnID &&
              again[0].getDestConnID() == message.getDestConnID(),
          "the header survives");
  require(again[0].isScheduled() || message.isScheduled() || again[0].encode() == payload,
          "the payload survives");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string rest(data + 1, data + size);
  const std::string stream = (data[0] & 1) != 0 ? rest : frame(rest);
  const std::size_t chunk = 1 + data[0] / 2;
  const std::vector<PellInternalMessage> whole = parsed(stream, stream.size());
  std::vector<PellInternalMessage> cut = parsed(stream, chunk);
  require(whole.size() == cut.size(), "chunks do not matter");
  for (std::size_t i = 0; i < cut.size(); ++i) {
    require(whole[i].encode() == cut[i].encode() || whole[i].isScheduled() != cut[i].isScheduled(),
            "chunks do not matter to a message");
    look(cut[i]);
    sendOn(cut[i]);
    cut[i].splitPath();
    PellInternalMessage moved = std::move(cut[i]);
    moved.getBody();
    moved.encode();
  }
  return 0;
}
