#include <rapidjson/document.h>
#include <regex>

#include "tools/valtor-status/PageFixture.h"
#include "valtor-status/Metrics.h"

namespace valtor::test {
namespace {

using Texts = std::vector<std::string>;
using std::chrono::milliseconds;

class LookTest : public PageFixture {};

TEST_F(LookTest, WhyNobodyAnswersIsSaidAndTheLastDocumentStays) {
  EXPECT_TRUE(eventuallyAnswers("/healthz", "there is no " + path));
  EXPECT_NE(get("/api/status").find("\"asOf\":null,\"document\":null"), std::string::npos);
  {
    StatusStandIn daemon(path);
    const std::string good = documentJSON(routerJSON("north", "up"));
    const std::string large = ",\"x\":\"" + std::string(kLongestStatus, 'x') + "\"";
    const std::pair<std::string, std::string> cases[] = {
        {"", path + " says nothing"},
        {good.substr(0, good.size() / 2), "is no JSON object"},
        {"[" + good + "]", "is no JSON object"},
        {std::string("\x00\xff garbage", 10), "is no JSON object"},
        {documentJSON(routerJSON("long", "up"), large), "Message too long"},
        {R"({"startTime":1,"x":)" + std::string(1500, '[') + std::string(1500, ']') + "}",
         "is no JSON object"},
        {"{}", "is no JSON object of a daemon"},
        {good, "ok\n"}};
    for (const auto& [said, problem] : cases) {
      daemon.say(said);
      EXPECT_TRUE(eventuallyAnswers("/healthz", problem)) << said.substr(0, 100);
    }
    EXPECT_TRUE(eventuallyAnswers("/api/status", "\"name\":\"north\""));
    daemon.hang(true);
    EXPECT_TRUE(eventuallyAnswers("/healthz", "nobody answers at " + path));
    daemon.hang(false);
    EXPECT_TRUE(eventuallyAnswers("/healthz", "ok\n"));
  }
  EXPECT_TRUE(eventuallyAnswers("/healthz", path + " lies there from a daemon that is gone"));
  const std::string last = get("/api/status");
  EXPECT_NE(last.find("\"answering\":false"), std::string::npos);
  EXPECT_NE(last.find("\"name\":\"north\""), std::string::npos);
}

TEST_F(LookTest, NamesPassAsTheTextThatTheyAre) {
  StatusStandIn daemon(path);
  const std::string markup = R"(<img src=x onerror=alert(1)>\n\u2028\u0007\"\\)";
  daemon.say(documentJSON(routerJSON(markup, "up") + "," + routerJSON("broken \xff\xc3", "up")));
  ASSERT_TRUE(eventuallyAnswers("/api/status", "onerror"));
  daemon.say(documentJSON(routerJSON("broken \xff\xc3", "up")));
  ASSERT_TRUE(eventuallyAnswers("/api/status", "\"kind\":\"removed\""));
  const std::string answer = get("/api/status");
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag>(answer.c_str() + answer.find("\r\n\r\n") +
                                                        4);
  ASSERT_FALSE(document.HasParseError()) << answer;
  EXPECT_STREQ(document["routers"][0]["uniqueID"].GetString(), "id-broken \uFFFD\uFFFD");
  const auto& event = document["events"][document["events"].Size() - 1];
  EXPECT_STREQ(event["text"].GetString(),
               "<img src=x onerror=alert(1)>\n\u2028\a\"\\ is no longer listed.");
}

TEST_F(LookTest, AStreamBeginsWithEverythingAndGoesOnWithWhatIsNew) {
  StatusStandIn daemon(path);
  daemon.say(documentJSON(routerJSON("north", "up")));
  ASSERT_TRUE(eventuallyAnswers("/api/status", "\"rates\":[["));
  Browser browser(port());
  browser.get("/api/events");
  EXPECT_TRUE(browser.shows("retry: 1000\n\nevent: state\nid: 1\ndata: {"));
  const std::string first = browser.readTo("\n\n");
  EXPECT_NE(first.find("\"rates\":[["), std::string::npos);
  EXPECT_NE(first.find("\"text\":\"The daemon answers"), std::string::npos);
  daemon.say(documentJSON(routerJSON("north", "down", R"(,"lastLoss":{"reason":"hung up"})")));
  EXPECT_TRUE(browser.shows("event: event\n"));
  EXPECT_NE(browser.readTo("\n\n").find("\"kind\":\"down\",\"router\":\"id-north\","
                                        "\"text\":\"north is down: hung up.\""),
            std::string::npos);
  EXPECT_TRUE(browser.shows("event: state\n"));
  const std::string next = browser.readTo("\n\n");
  EXPECT_NE(next.find("\"state\":\"down\""), std::string::npos);
  EXPECT_EQ(next.find("\"events\""), std::string::npos);
  EXPECT_TRUE(browser.shows("\"rates\":[["));
}

TEST_F(LookTest, SecondsInWhichNothingCrossesAreShort) {
  StatusStandIn daemon(path);
  const auto count = [&](int messages) {
    daemon.say(documentJSON(routerJSON(
        "north", "up", ",\"toRouter\":{\"messages\":" + std::to_string(messages) + "}")));
  };
  const auto becomes = [&](const std::string& rates) {
    const std::regex pattern("\"rates\":\\[" + rates + "\\]\\}");
    return eventually([&] { return std::regex_search(get("/api/status"), pattern); });
  };
  count(100);
  EXPECT_TRUE(becomes(R"(\[([\d.]+),(?!\1\])[\d.]+\])"));
  count(200);
  EXPECT_TRUE(becomes(R"(\[[\d.]+,[\d.]+\],\[[\d.]+,[\d.]+,0,0,0\],\[[\d.]+,[\d.]+\])"));
}

TEST_F(LookTest, ARoutersMessagesAreRelayedInBatchesUntilTheDaemonEndsThem) {
  const std::string follow = "/api/events?follow=id-%3Cnorth%3E";
  EXPECT_NE(get("/api/events?follow=x%0Ay").find("{\"reason\":\"no such router\"}"),
            std::string::npos);
  EXPECT_NE(get(follow).find("{\"reason\":\"there is no " + path), std::string::npos);
  StatusStandIn daemon(path);
  std::list<Browser> browsers;
  for (std::size_t i = 0; i < FollowRelays::kMost; ++i) {
    browsers.emplace_back(port()).get(follow);
  }
  ASSERT_TRUE(eventually([&] { return daemon.followers() == FollowRelays::kMost; }));
  EXPECT_NE(get(follow).find("{\"reason\":\"too many watch messages already\"}"),
            std::string::npos);
  // Who leaves lets the daemon go, although nothing comes.
  browsers.pop_front();
  EXPECT_TRUE(eventually([&] { return daemon.followers() == FollowRelays::kMost - 1; }));
  daemon.tell("{\"missed\":7}\n");
  EXPECT_TRUE(browsers.front().shows("event: message\nid: 1\ndata: [{\"missed\":7}]\n\n"));
  daemon.tell("{\"body\":\"\\u003c\xff\"}\n{ }\n");
  EXPECT_TRUE(browsers.front().shows("event: message\nid: 2\ndata: [{\"body\":\"<\uFFFD\"}"));
  EXPECT_TRUE(browsers.front().shows("{}]\n\n"));
  daemon.tell("{\"half\":");
  daemon.tell("");
  EXPECT_TRUE(
      browsers.front().shows("data: {\"reason\":\"the daemon has ended what it told\"}\n\n"));
  EXPECT_TRUE(browsers.front().ends());
  std::optional<FollowRelays> others(path);
  const auto relay = others->follow("id-<north>");
  others.reset();
  EXPECT_TRUE(relay->take(FollowRelay::Clock::now()).ended);
}

TEST(FollowRelayTest, KeepsTheNewestAndCountsTheRest) {
  FollowRelay relay;
  for (std::size_t i = 0; i < FollowRelay::kLines + 3; ++i) {
    relay.add(std::to_string(i));
  }
  relay.addMissed(10);
  relay.end("over");
  FollowRelay::Batch batch = relay.take(FollowRelay::Clock::now());
  EXPECT_EQ(batch.lines.size(), FollowRelay::kBatch);
  EXPECT_EQ(batch.lines[0], "{\"missed\":13}");
  EXPECT_EQ(batch.lines[1], "3");
  EXPECT_FALSE(batch.ended);
  for (std::size_t taken = FollowRelay::kBatch - 1; taken < FollowRelay::kLines;) {
    batch = relay.take(FollowRelay::Clock::now());
    taken += batch.lines.size();
  }
  EXPECT_EQ(batch.lines.back(), std::to_string(FollowRelay::kLines + 2));
  EXPECT_TRUE(batch.ended);
  EXPECT_EQ(batch.reason, "over");
}

TEST(FollowRelayTest, HoldsAMebibyteAtMostAndTellsItInParts) {
  FollowRelay relay;
  const std::string line(65536, 'x');
  for (int i = 0; i < 100; ++i) {
    relay.add(line);
  }
  std::size_t lines = 0;
  for (bool more = true; more;) {
    const FollowRelay::Batch batch = relay.take(FollowRelay::Clock::now());
    lines += batch.lines.size();
    EXPECT_LE(batch.lines.size(), FollowRelay::kBatchBytes / line.size() + 1);
    more = batch.more;
  }
  EXPECT_EQ(lines, 1 + FollowRelay::kBytes / line.size());
}

// The texts of the events that each document adds to those before it, ten seconds apart.
std::vector<Texts> eventsOf(History& history, const Texts& documents) {
  std::vector<Texts> told;
  History::Clock::time_point now;
  for (const std::string& document : documents) {
    const uint64_t before = history.lastEvent();
    now += std::chrono::seconds(10);
    document.empty() ? history.silent("gone", 1)
                     : history.answered(StatusFigures::of(document).value(), 1, now);
    told.emplace_back();
    for (const History::Event& event : history.events()) {
      if (event.id > before) {
        told.back().push_back(event.kind + ": " + event.text);
      }
    }
  }
  return told;
}

TEST(HistoryTest, DifferencesBecomeEvents) {
  const std::string north = routerJSON("north", "up");
  const std::pair<std::string, Texts> steps[] = {
      {documentJSON(north), {"daemon: The daemon answers."}},
      {documentJSON(north), {}},
      {documentJSON(routerJSON("north", "up", R"(,"lost":1,"lastLoss":{"reason":"hung up"})")),
       {"down: north was down for a moment: hung up."}},
      {documentJSON(routerJSON("north", "disabled", R"(,"lost":1)")),
       {"disabled: north is disabled."}},
      {documentJSON(routerJSON("north", "up", R"(,"lost":1,"stalled":true)")),
       {"up: north is up.", "stalled: north takes no messages."}},
      {documentJSON(routerJSON("north", "up", R"(,"lost":1)") + "," + routerJSON("west", "down")),
       {"flows: north is no longer stalled.", "listed: west is listed, down."}},
      {R"({"startTime":1,"role":{"state":"standby"},"controller":{"state":"down","lastLoss":null}})",
       {"role: The role is standby.", "bus: The daemon's link to the controller is down.",
        "removed: north is no longer listed.", "removed: west is no longer listed."}},
      {"", {"daemon: The daemon does not answer: gone."}},
      {"", {}},
      {documentJSON(
           "",
           R"(,"controller":{"state":"up"},"warnings":{"notConnected":12,"other":3,"sendFailed":1e300})"
           R"(,"loops":{"episodes":1,"last":{"kind":"NOT","path":"a","from":"b","to":"c"}})"),
       {"daemon: The daemon answers again.", "role: The role is active.",
        "bus: The daemon's link to the controller is up.",
        "loop: A message goes round in circles: NOT on \"a\" from b to c.",
        "warning: Messages dropped since a link is down: 12.",
        "warning: Links broken while a message was sent: 1000000000000000."}},
      {R"({"startTime":2,"role":{"state":"active"},"controller":{"state":"up"}})",
       {"daemon: The daemon was restarted."}}};
  Texts documents;
  std::vector<Texts> expected;
  for (const auto& [document, texts] : steps) {
    documents.push_back(document);
    expected.push_back(texts);
  }
  History history;
  EXPECT_EQ(eventsOf(history, documents), expected);
  for (int i = 0; i < 300; ++i) {
    eventsOf(history, {"", documentJSON("")});
  }
  EXPECT_EQ(history.events().size(), History::kEvents);
}

TEST(HistoryTest, RatesAreTakenOnceASecondAndNeverAcrossAGapOrARestart) {
  History history;
  const auto look = [&](int milli, double messages, int start = 1) {
    const std::string router =
        routerJSON("north", "up", ",\"toRouter\":{\"messages\":" + std::to_string(messages) + "}");
    history.answered(StatusFigures::of("{\"startTime\":" + std::to_string(start) +
                                       ",\"routers\":[" + router + "]}")
                         .value(),
                     milli / 1000.0, History::Clock::time_point(milliseconds(milli)));
    const auto& samples = history.samples("id-north");
    return samples.empty() ? -1.0F : samples.back().toRouter;
  };
  EXPECT_EQ(look(1000, 50), -1);
  EXPECT_EQ(look(1500, 60), -1);
  EXPECT_EQ(look(2000, 150), 100);
  EXPECT_EQ(look(2500, 900), 100);
  EXPECT_EQ(look(4000, 100), 0);  // listed anew: counters have begun again
  EXPECT_EQ(look(8000, 900), 0);  // over four seconds of which nothing is known
  EXPECT_EQ(history.samples("id-north").size(), 2U);
  EXPECT_EQ(look(9000, 5, 2), 0);
  EXPECT_EQ(look(10000, 25, 2), 20);
  EXPECT_EQ(history.samples("id-north").size(), 3U);
  for (int second = 11; second < 200; ++second) {
    look(second * 1000, 25, 2);
  }
  EXPECT_EQ(history.samples("id-north").size(), History::kSamples);
}

TEST(MetricsTest, LabelsAreEscapedAndNothingIsSaidForADaemonThatDoesNotAnswer) {
  LiveState::Figures figures;
  figures.answering = true;
  figures.age = 0.5;
  figures.bus.daemonDelayMs = 2.5;
  const std::string router = routerJSON(
      "a\\\"b\\\\c\\nd", "up",
      R"(,"lost":2,"waiting":{"frames":3},"fromRouter":{"messages":4,"bytes":12345678901,)"
      R"("rules":{"isTallyMsg":5}})");
  figures.status =
      StatusFigures::of(documentJSON(router + "," + router, R"(,"memory":{"allocatedBytes":6})"))
          .value();
  const std::string text = metricsText(figures, "9.9");
  const std::string labels = R"({router="id-a\"b\\c\nd",name="a\"b\\c\nd")";
  for (const std::string& line :
       {std::string("# TYPE valtor_router_messages_total counter"), std::string("valtor_up 1"),
        std::string("valtor_status_age_seconds 0.5"), std::string("valtor_role{role=\"active\"} 1"),
        std::string("valtor_daemon_delay_seconds 0.0025"),
        std::string("valtor_allocated_memory_bytes 6"), "valtor_router_up" + labels + "} 1",
        "valtor_router_lost_total" + labels + "} 2",
        "valtor_router_waiting_messages" + labels + "} 3",
        "valtor_router_messages_total" + labels + ",direction=\"from_router\"} 4",
        "valtor_router_bytes_total" + labels + ",direction=\"from_router\"} 12345678901",
        "valtor_router_blocked_total" + labels +
            ",direction=\"from_router\",rule=\"isTallyMsg\"} 5"}) {
    const std::size_t place = text.find("\n" + line + "\n");
    ASSERT_NE(place, std::string::npos) << line << "\n" << text;
    EXPECT_EQ(text.find("\n" + line + "\n", place + 1), std::string::npos) << line;
  }
  // A label's value is cut, and stays valid; what has no unique ID is no router.
  const std::string longName = std::string(254, 'n') + "\xc3\xa9" + std::string(60000, 'n');
  figures.status =
      StatusFigures::of(documentJSON(R"({"name":"x"},1,)" + routerJSON(longName, "up"))).value();
  EXPECT_NE(metricsText(figures, "9.9")
                .find("\nvaltor_router_up{router=\"id-" + std::string(252, 'n') + "\",name=\"" +
                      std::string(254, 'n') + "\"} 1\n"),
            std::string::npos);
  figures.answering = false;
  const std::string silent = metricsText(figures, "9.9");
  EXPECT_NE(silent.find("\nvaltor_up 0\n"), std::string::npos);
  EXPECT_EQ(silent.find("router"), std::string::npos);
}

}  // namespace
}  // namespace valtor::test
