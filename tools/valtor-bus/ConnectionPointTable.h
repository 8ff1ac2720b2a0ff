#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bus/message/PellInternalMessage.h"
#include "valtor-bus/DaemonStatus.h"
#include "valtor-bus/MessageText.h"

namespace valtor {

// What is known about connection points from answers and notifications on "device". One thread.
class ConnectionPointTable {
 public:
  struct Row {
    std::string name;
    std::string type;
    std::string address;  // of the first phy
    bool enabled = false;
    bool connected = false;
    std::optional<WallTime> since;  // when the connected state was seen to change, if it was
    bool listed = false;            // in the answers since beginListing()
  };

  // From now on answers list what there is; endListing() drops what they did not.
  void beginListing();
  void endListing();
  // Takes over what an answer lists. The state's time is forgotten where the state changed unseen.
  void takeAnswer(const PellInternalMessage& answer);
  // Takes over a notification that came at the time. Whether it concerned connection points.
  bool takeNotification(const PellInternalMessage& notification, WallTime time);

  // Takes over since when the states are as they are, from a daemon that tells.
  void takeTimes(const DaemonStatus& status);

  // A head line and one line for each connection point, in the order of the unique IDs.
  std::string text(bool colour) const;
  // What is known as JSON, in the form of the daemon's status document.
  std::string json() const;

  const std::map<std::string, Row>& rows() const { return rows_; }

 private:
  // The time is that of a notification.
  bool takeList(const cJSON* list, std::optional<WallTime> time);

  std::map<std::string, Row> rows_;  // by unique ID
};

}  // namespace valtor
