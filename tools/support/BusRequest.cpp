#include "support/BusRequest.h"

#include <array>
#include <unistd.h>

#include "app/util/OwnedJSON.h"
#include "support/CommandFailure.h"
#include "support/JSONText.h"
#include "support/PrintableText.h"

namespace valtor {
namespace {

constexpr int kFirstRefusal = 400;

// Not the identifiers of the message classes: those read the address of eth0, and say so where
// there is none.
std::string nextIdentifier() {
  static int counter = 0;
  std::array<char, 256> host{};
  gethostname(host.data(), host.size() - 1);
  return std::to_string(counter++) + "@" + std::to_string(getpid()) + "." + host.data();
}

int statusCode(const PellInternalMessage& answer) {
  const cJSON* code = cJSON_GetObjectItem(answer.viewBody(), "statusCode");
  return cJSON_IsNumber(code) ? code->valueint : 0;
}

void checkPath(MessageKind kind, const std::string& path) {
  // The longest numbers a header can carry, so that it fits whoever sends it.
  PellInternalHeader longest;
  longest.kind = kind;
  longest.path = path;
  longest.destConnID = INT32_MIN;
  if (!isPlainPath(path) || HeaderLine(longest, INT32_MIN).isCut()) {
    throw CommandFailure(ExitCode::Usage,
                         "path \"" + printable(path) + "\" does not fit a message header",
                         "A path has no quotes, backslashes or control characters and at most "
                         "about 200 characters.");
  }
}

}  // namespace

BusRequest makeRequest(MessageKind kind, const std::string& path, const std::string& body,
                       int32_t destination) {
  checkPath(kind, path);
  const std::string text = compactJSON(body).value_or("");
  if (text.empty() || text.front() != '{') {
    throw CommandFailure(ExitCode::Usage,
                         "the body is not a JSON object: \"" + excerpt(body) + "\"" +
                             (text.empty() ? ", " + faultInJSON(body) : ""),
                         "Quote it for the shell, such as '{\"param\":{\"name\":1}}'.");
  }
  const OwnedJSON tree = parseJSON(text);
  if (const char* given = stringMember(tree.get(), "id"); given != nullptr && *given != '\0') {
    return {kind, path, destination, given, text, true};
  }
  return repeated({kind, path, destination, "", text});
}

BusRequest repeated(const BusRequest& request) {
  BusRequest again = request;
  again.identifier = nextIdentifier();
  JSONMembers members = membersOfJSON(request.body);
  std::erase_if(members, [](const auto& member) { return member.first == "\"id\""; });
  members.insert(members.begin(), {"\"id\"", quotedJSON(again.identifier)});
  again.body = objectOfJSON(members);
  return again;
}

BusRequest loginRequest(const std::string& name, int32_t connID) {
  return makeRequest(MessageKind::SET, "system.connection",
                     R"({"param":{"login":{"name":)" + quotedJSON(name) +
                         ",\"connID\":" + std::to_string(connID) + ",\"version\":1}}}");
}

BusRequest subscriptionRequest(const std::vector<std::string>& paths) {
  std::string list;
  for (const std::string& path : paths) {
    list += (list.empty() ? "" : ",") + ("{\"path\":" + quotedJSON(path)) + ",\"receiveAll\":true}";
  }
  return makeRequest(MessageKind::SET, "system.connection",
                     R"({"param":{"subscribeList":[)" + list + "]}}");
}

BusRequest readinessQuestion(int32_t connID) {
  return makeRequest(MessageKind::GET, "system", R"({"param":{"objectName":["moduleReady"]}})",
                     connID);
}

std::string payloadOf(const BusRequest& request, int32_t source) {
  PellInternalHeader header;
  header.kind = request.kind;
  header.path = request.path;
  header.destConnID = request.destination;
  return std::string(HeaderLine(header, source).text()) + request.body;
}

bool isAnswerTo(const BusRequest& request, const PellInternalMessage& message) {
  const MessageKind kind = message.getKind();
  return (kind == MessageKind::RSP || kind == MessageKind::CMDRSP || kind == MessageKind::ACK ||
          kind == MessageKind::NAK) &&
         message.getUniqueId() == request.identifier;
}

std::string bodyOf(const PellInternalMessage& answer) {
  const char* text = answer.bodyText();
  const auto whole = [](const std::string& json) { return compactJSON(withoutBrokenUtf8(json)); };
  const std::optional<std::string> body = whole(text != nullptr ? text : "");
  // The trees of the message classes also take what is not quite JSON.
  return body ? *body : whole(printJSON(answer.viewBody(), false)).value_or("null");
}

std::string paramOf(const PellInternalMessage& answer) {
  const std::string body = bodyOf(answer);
  const std::string param = memberOfJSON(body, "param");
  return param.empty() ? memberOfJSON(body, "paramDescriptor") : param;
}

std::string statusOf(const PellInternalMessage& answer) {
  const int code = statusCode(answer);
  if (code == 0) {
    return answer.getKind() == MessageKind::NAK ? "NAK" : "";
  }
  const char* text = stringMember(answer.viewBody(), "statusMsg");
  return std::to_string(code) + (text != nullptr ? " " + printable(text) : "");
}

bool isRefusal(const PellInternalMessage& answer) {
  return answer.getKind() == MessageKind::NAK || statusCode(answer) >= kFirstRefusal;
}

}  // namespace valtor
