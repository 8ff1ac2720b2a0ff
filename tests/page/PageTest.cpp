#include <chrono>
#include <iostream>
#include <thread>

#include "e2e/EndToEnd.h"
#include "page/Browser.h"

namespace valtor::test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The name and unique ID of a router, as its description has them and, in JavaScript, as the page
// shows them.
constexpr const char* kHostile = R"--(zeta <img src=x onerror=\"alert(1)\">\u0007)--";
constexpr const char* kHostileShown = R"--(zeta <img src=x onerror="alert(1)">\\x07)--";

// The daemon between a controller and the routers alpha, beta, gamma, whose node is a process of
// its own, and one with a hostile name; its live page; a browser that shows it.
class PageTest : public EndToEndTest {
 protected:
  PageTest() {
    writeActiveDatabase(site.alphaEntry() + "," + site.betaEntry() + "," +
                        routerEntry("gamma", "127.0.0.4", kPort) + "," +
                        routerEntry(kHostile, "127.0.0.5", kPort));
  }
  void SetUp() override {
    startGamma();
    startComplete();
    startPage();
    browser.becomeDevice(1280, 680, false);
    browser.open(kAddress);
    ASSERT_TRUE(browser.becomes("document.querySelectorAll('.tile').length === 4")) << everything();
  }
  void TearDown() override {
    traffic = {};
    for (const std::string& line : browser.complaints()) {
      EXPECT_TRUE(refusals && line.find("net::ERR_") != std::string::npos) << line;
    }
    EXPECT_EQ(browser.valueOf("document.querySelectorAll('img, b').length"), "0");
    if (HasFailure()) {
      std::cerr << everything() << '\n' << page->out() << '\n';
    }
    EndToEndTest::TearDown();
  }

  void startGamma() {
    gamma = std::make_unique<ChildProcess>("exec " VALTOR_NODE_EXECUTABLE
                                           " --listen 127.0.0.4 >out 2>&1");
    ASSERT_TRUE(eventually([&] { return gamma->out().find("LISTEN") != std::string::npos; }));
  }
  void startPage() {
    // By a path that may stand in a picture.
    page = std::make_unique<ChildProcess>("ln -s " VALTOR_TEST_ROOT
                                          "/run .; exec " VALTOR_STATUS_EXECUTABLE
                                          " --socket run/valtor-remote/status >out 2>&1");
  }
  void command(const std::string& body) {
    (*site.controller)->injectPayload("[\"CMD\", \"route\", 490, 0, 0]\n" + body);
  }
  // Panels and alpha speak until the test ends.
  void startTraffic() {
    traffic = std::jthread([this](const std::stop_token& end) {
      for (int number = 0; !end.stop_requested(); ++number) {
        command(R"({"id":")" + std::to_string(number) + R"(@panel","take":[]})");
        if (number % 3 == 0) {
          (*site.alpha)->inject(100, "NOT", "route", 0, R"({"param":{"status":[[4,[12]]]}})");
        }
        std::this_thread::sleep_for(milliseconds(30 + 20 * (number / 100 % 2)));
      }
    });
    if (browser.takesPictures()) {  // with lines to see on them
      EXPECT_TRUE(browser.becomes("view.tiles.get('alpha').rates.length > 25"));
    }
  }

  // The page's text, as somebody who looks at it has it.
  std::string everything() { return browser.valueOf("document.body.innerText"); }
  // Waits until an element shows the text.
  void shows(const std::string& selector, const std::string& text) {
    EXPECT_TRUE(browser.becomes("[...document.querySelectorAll(`" + selector +
                                "`)].some((one) => one.innerText.includes(`" + text + "`))"))
        << selector << " never shows: " << text;
  }
  static std::string tile(const std::string& name) {
    return "[...document.querySelectorAll('.tile')].find((one) => "
           "one.querySelector('.name').textContent === `" +
           name + "`)";
  }
  void tileShows(const std::string& name, const std::string& text) {
    EXPECT_TRUE(browser.becomes(tile(name) + "?.innerText.includes(`" + text + "`)"))
        << name << " never shows: " << text;
  }
  static std::string element(const std::string& id) {
    return "document.getElementById('" + id + "')";
  }
  void follow(const std::string& name) {
    browser.click(tile(name) + ".querySelector('.name')");
    shows("#follow-state", "live");
  }
  // What should take so long: on a busy machine it takes longer, but not four times as long as
  // long as it is an event that brings it to the page, and no silence has to be waited for.
  static void announceTime(const char* what, double seconds, double figure) {
    std::cout << "[ MEASURED ] " << what << ": " << seconds << " s\n";
    EXPECT_LE(seconds, 4 * figure) << what;
  }
  static double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
  }

  static constexpr const char* kAddress = "http://127.0.0.1:15080/";

  const std::unique_ptr<RunningNode> zeta = site.start("127.0.0.5");
  std::unique_ptr<ChildProcess> gamma;
  std::unique_ptr<ChildProcess> page;
  Browser browser;
  std::jthread traffic;
  bool refusals = false;  // whether the browser may have met a server that is gone
};

TEST_F(PageTest, ShowsWhatCrossesAndKeepsStrangersTextAsText) {
  startTraffic();
  (*site.alpha)->inject(2, "GET", "route", 0, "{}");
  tileShows("alpha", "Carries traffic both ways");
  tileShows("gamma", "Carries traffic to the router only");
  tileShows("alpha", "Blocked from router: reqIDSupported 1");
  tileShows("alpha", "127.0.0.2:15000");
  tileShows(kHostileShown, "Carries traffic");
  shows("#role", "active");
  shows("#verdict-text", "All 4 routers carry traffic");
  shows("#daemon", "answers, up");
  shows("#bus", "answers in");
  shows("#crossing tr", "CMD");
  const std::pair<std::string, std::string> spoken[] = {
      {"document.querySelector('main')", "main "},
      {element("routers-section"), "region Routers"},
      {element("announcer"), "status "},
      {tile("alpha") + ".querySelector('.name')", "button alpha"},
  };
  for (const auto& [one, words] : spoken) {
    EXPECT_EQ(browser.roleAndName(one), words) << one;
  }
  const std::string lines = browser.roleAndName(tile("alpha") + ".querySelector('canvas')");
  EXPECT_EQ(lines.rfind("image Lines of the last two minutes. Messages", 0), 0U) << lines;
  browser.screenshot("page-start");

  // The page's own questions on the bus are among what does not cross.
  follow("alpha");
  shows("#messages li.blocked", "blocked by isSystemMessage");
  shows("#messages li", "← from");
  browser.screenshot("page-messages");
  browser.click(element("follow-close"));

  browser.becomeDevice(360, 740, true);
  EXPECT_EQ(browser.valueOf("document.scrollingElement.scrollWidth"), "360");
  EXPECT_TRUE(
      browser.becomes("getComputedStyle(document.body).backgroundColor === 'rgb(14, 19, 24)'"));
  browser.screenshot("page-phone");
}

TEST_F(PageTest, AKilledRouterIsDownAtOnceAndComesBackByItself) {
  startTraffic();
  tileShows("gamma", "Carries traffic");
  const auto begin = Clock::now();
  gamma->signal(SIGKILL);
  tileShows("gamma", "Down hung up");
  announceTime("a killed router is seen", secondsSince(begin), 2);
  shows("#events", "gamma is down");
  shows("#verdict-text", "1 of 4 routers carries nothing");
  EXPECT_TRUE(browser.becomes("document.querySelector('.tile .name').textContent === 'gamma'"));
  browser.screenshot("page-kill");
  startGamma();
  tileShows("gamma", "Unsteady");
  shows("#events", "gamma is up");
}

TEST_F(PageTest, AFrozenRouterIsNotTakenForOneThatCarriesTraffic) {
  startTraffic();
  const auto begin = Clock::now();
  gamma->signal(SIGSTOP);
  EXPECT_TRUE(browser.becomes("/Down|No answer/.test(" + tile("gamma") + ".innerText)"));
  announceTime("a frozen router is seen", secondsSince(begin), 15);
  // Its system takes connections for it, which proves nothing.
  tileShows("gamma", "No answer");
  tileShows("gamma", "no response: silent for 10 s");
  browser.screenshot("page-freeze");
  gamma->signal(SIGCONT);
  tileShows("gamma", "Unsteady");
}

TEST_F(PageTest, AStandbyIsNoTrouble) {
  startTraffic();
  shows("#verdict-text", "All 4 routers carry traffic");
  (*site.controller)->setRole("standby");
  shows("#verdict-text", "Standby");
  shows("#role", "standby");
  shows("#events", "The role is standby");
  browser.screenshot("page-standby");
  (*site.controller)->setRole("active");
  shows("#verdict-text", "All 4 routers");
}

TEST_F(PageTest, ARouterThatTakesNothingSaysWhatWaits) {
  startTraffic();
  tileShows("gamma", "Carries traffic");
  gamma->signal(SIGSTOP);
  const std::string large(100'000, 'x');
  for (int number = 0; number < 100; ++number) {
    command("{\"pad\":\"" + large + "\"}");
  }
  tileShows("gamma", "Takes nothing");
  EXPECT_TRUE(browser.becomes("/[1-9]\\d* frames \\([\\d.]+ MB\\) wait/.test(" + tile("gamma") +
                              ".innerText)"));
  tileShows("alpha", "Carries traffic");
  browser.screenshot("page-burst");
  gamma->signal(SIGCONT);
  tileShows("gamma", "Carries traffic");
}

TEST_F(PageTest, ABurstOfMessagesIsShownOrCountedAsMissed) {
  constexpr int kBurst = 3000;
  follow("alpha");
  browser.valueOf(
      "window.worst = 0, setInterval(() => {"
      " worst = Math.max(worst, follow.behind || 0); }, 20)");
  const auto begin = Clock::now();
  for (int number = 1; number <= kBurst; ++number) {
    command("{\"number\":" + std::to_string(number) + "}");
    std::this_thread::sleep_until(begin + milliseconds(number));
  }
  EXPECT_TRUE(browser.becomes("follow.seen + follow.missed >= 3000"));
  shows("#messages li", "{\"number\":3000}");
  EXPECT_EQ(browser.valueOf("document.querySelectorAll('#messages li').length"), "500");
  shows("#follow-counts", "500 shown");
  std::cout << "[ MEASURED ] at 1000 messages a second: "
            << browser.valueOf("document.getElementById('follow-counts').innerText") << '\n';
  announceTime("a message is seen at worst", std::stod(browser.valueOf("worst.toFixed(2)")), 1);
  // A ring of 512 in the daemon and one here: only a second of standstill is missed.
  EXPECT_EQ(browser.valueOf("follow.missed <= 3000 / 2"), "true");
  tileShows("alpha", "Carries traffic to the router only");
}

TEST_F(PageTest, FollowsFiltersAndPauses) {
  follow(kHostileShown);
  command("{\"text\":\"<b>bold</b>\x01\"}");
  shows("#messages li", R"({"text":"<b>bold</b>\\x01"})");
  browser.click(element("follow-close"));
  EXPECT_TRUE(browser.becomes("document.activeElement.textContent === `" +
                              std::string(kHostileShown) + "`"));

  browser.type(tile("alpha") + ".querySelector('.name')", "\uE007");  // Enter
  shows("#follow-state", "live");
  (*site.alpha)->inject(2, "GET", "route", 0, "{\"inner\":1}");
  command("{\"first\":1}");
  shows("#messages li", "{\"first\":1}");
  shows("#messages li.blocked", "blocked by reqIDSupported");
  browser.type(element("filter"), "cmd -inner");
  EXPECT_TRUE(browser.becomes("document.querySelectorAll('#messages li').length === 1"));
  browser.click(element("pause"));
  command("{\"second\":2}");
  shows("#follow-counts", "1 new");
  EXPECT_EQ(browser.valueOf("document.querySelectorAll('#messages li').length"), "1");
  browser.click(element("pause"));
  EXPECT_TRUE(browser.becomes("document.querySelectorAll('#messages li').length === 2"));

  browser.open("about:blank");
  browser.open(std::string(kAddress) + "#follow=alpha");  // as after a reload
  shows("#events", "The daemon answers");
  shows("#follow-state", "live");
  command("{\"third\":3}");
  shows("#messages li", "{\"third\":3}");
  browser.type(element("filter"), "\uE00C");  // Escape
  EXPECT_TRUE(browser.becomes(element("follow") + ".hidden"));
}

TEST_F(PageTest, OldDataIsGreyAndSaysHowOldItIsUntilAllIsBack) {
  refusals = true;
  startTraffic();
  shows("#verdict-text", "All 4 routers carry traffic");
  const std::string grey = "document.body.classList.contains('stale')";
  endDaemon();
  shows("#verdict-text", "The daemon does not answer");
  shows("#age", "4 s old");
  tileShows("alpha", "Was: Carries traffic");
  EXPECT_EQ(browser.valueOf(grey), "true");
  browser.screenshot("page-death");
  browser.click(tile("alpha") + ".querySelector('.name')");
  shows("#follow-state", "ended");
  startComplete();
  shows("#verdict-text", "All 4 routers");
  EXPECT_TRUE(browser.becomes("!" + grey));
  shows("#follow-state", "live");

  page.reset();
  shows("#verdict-text", "No connection to valtor-status");
  shows("#age", "5 s old");
  EXPECT_EQ(browser.valueOf(grey), "true");
  startPage();
  shows("#verdict-text", "All 4 routers");
  EXPECT_TRUE(browser.becomes("!" + grey));
  shows("#follow-state", "live");
  shows("#messages li.missed", "messages may be missing");
  command("{\"back\":1}");
  shows("#messages li", "{\"back\":1}");
}

TEST_F(PageTest, ClocksAndCountersThatBeginAgainLeaveNothingFalse) {
  // States as the server would send them, a minute of which the page's clock does not have.
  browser.valueOf(
      "states.close(), setInterval(() => hear(false), 100), window.base = view.state,"
      "view.tiles.get('alpha').rates = [],"
      "window.feed = (now, start, sent, rates, losses) => {"
      "  const state = structuredClone(base), known = state.daemon.document;"
      "  state.now = state.daemon.asOf = known.now = now;"
      "  known.startTime = start;"
      "  known.crossing = [{direction: 'toRouters', kind: 'CMD', path: 'p', messages: sent}];"
      "  state.routers = [{uniqueID: 'alpha', lostLastTenMinutes: losses, rates}];"
      "  takeState(state); render(); }");
  const auto feed = [&](const std::string& arguments) {
    browser.valueOf("feed(" + arguments + ")");
  };
  const auto crossing = [&] {
    return browser.valueOf("document.querySelector('#crossing tr').cells[3].innerText");
  };
  feed("base.now, 1, 100, [[base.now - 9, base.now - 4], [base.now - 1, 7, 0, 70, 0]], 16");
  EXPECT_EQ(browser.valueOf("view.tiles.get('alpha').rates.filter((one) => !one.gap).length"), "7");
  tileShows("alpha", "16 or more of");
  // When the router was lost, how its link ended last, and when.
  const std::pair<std::string, std::string> ends[] = {{"300, 'hung up', 300", "unsteady"},
                                                      {"900, 'hung up', 900", "unsteady"},
                                                      {"300, 'standby', 9", "carries"}};
  for (const auto& [end, state] : ends) {
    browser.valueOf(
        "((ago, reason, time) => Object.assign(base.daemon.document.routers[0], {"
        "  since: base.now - 5, losses: [base.now - ago],"
        "  lastLoss: {reason, time: base.now - time}}))(" +
        end + ")");
    feed("base.now, 1, 100, [[base.now - 1, 7, 0, 70, 0]], " +
         std::to_string(end[0] == '3' ? 1 : 0));
    EXPECT_EQ(browser.valueOf("view.tiles.get('alpha').verdict.state"), state) << end;
  }
  EXPECT_EQ(browser.valueOf("at(Math.floor(base.now) + 0.9997, true).slice(-4)"), ".999");
  feed("base.now + 2, 1, 120, [], 0");
  EXPECT_EQ(crossing(), "10");
  feed("base.now + 4, 2, 8, [], 0");
  EXPECT_EQ(crossing(), "–");
  // The server's clock is set back an hour.
  feed("base.now - 3600, 2, 8, [[base.now - 3600, base.now - 3600]], 0");
  EXPECT_EQ(browser.valueOf("view.tiles.get('alpha').rates.length"), "1");
  EXPECT_EQ(browser.valueOf("view.tiles.get('alpha').verdict.state"), "quiet");
  // It runs slower than the page's.
  browser.valueOf(
      "window.steady = performance.now(), performance.now = () => steady,"
      "Array.from({length: 600}, (_, i) => { steady += 1000; clock.hear(5000 + i * 0.995); })");
  EXPECT_EQ(browser.valueOf("clock.now() - (5000 + 599 * 0.995) < 1"), "true");
  EXPECT_EQ(browser.valueOf("takeState({daemon: {answering: true, document: {}}, now: 1}), "
                            "renderFacts(1), document.getElementById('daemon').innerText"),
            "answers");
}

}  // namespace
}  // namespace valtor::test
