#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/util/OwnedJSON.h"
#include "support/BridgeSite.h"

namespace valtor::gauntlet {

// The nodes around a daemon under torture, the files that it finds, and what is done with it: the
// same in every run. Every operation that waits is true when what it waits for came.
class Scene {
 public:
  // Empties the folder of the fixed paths and writes a database with alpha and beta.
  Scene();

  struct Step {
    const char* name;
    std::function<bool()> play;
  };
  // The scenario. Each step may be played whatever became of those before it.
  const std::vector<Step>& steps() const { return steps_; }

  bool isUp();
  // A status from each router comes through. Until then a node may still hold a link that the
  // daemon has left, and what it says there nobody hears.
  bool hearsItsRouters();
  // Nobody is linked any more.
  bool becomesDeserted() const;
  // So many numbered messages to all routers, and so many from them: all arrive.
  bool carries(int count);
  // Routers and an incoming client are listed anew, which is saved.
  bool saves();
  // What was answered last comes to stand in both files, and nobody says anything meanwhile.
  bool savesByItself() const;
  bool goesToStandbyAndBack();
  bool followsAMove();
  bool tellsStatus() const;
  // The status that the daemon tells now; null when it tells none.
  static JSONPtr status();
  // Every router is listed and gets connected without being asked for; with a database that could
  // not be loaded, those that are listed.
  bool recoversByItself(bool hasDatabase);
  // The role and the list are said again, as an operator does, and all works as at the beginning.
  bool isGoodAgain(bool tellsItsStatus);
  // What is wrong with the state file, or its previous copy where there is only that; "" for
  // nothing. It has to be there, and to hold that state or a later one, unless that is 0.
  static std::string stateFault(int leastState = 0);
  static std::string statePath();
  // The first message that did not arrive as it was sent, at most once and in the order of its
  // sender; "" for none. What is missing a fault may have cost.
  std::string trafficFault() const;
  // How often a command did not reach a router. To be asked when others came behind it.
  std::size_t lostCommands() const;

  // Whether there is more or less than one state file.
  static bool isStateHalfWay();
  // Like saves(), without waiting for anything.
  void asksToSave();
  // The last state that was saved, or whose request was answered; 0 before the first.
  int savedState() const;
  // What the nodes remember goes.
  void forget();

  test::BridgeSite& site() { return site_; }

 private:
  // The body that answers this request on the controller's bus; "" when none comes.
  std::string ask(const std::string& kind, const std::string& body);
  std::string list(const std::string& entries);
  std::array<RunningNode*, 5> nodes() const;

  test::BridgeSite site_;
  std::unique_ptr<RunningNode> gamma_;
  std::unique_ptr<RunningNode> panels_;  // several links lead there
  std::vector<Step> steps_;
  int number_ = 0;
  int answered_ = 0;
  int saved_ = 0;
};

}  // namespace valtor::gauntlet
