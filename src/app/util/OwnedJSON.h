#pragma once

#include <cjson/cJSON.h>
#include <memory>
#include <string>

namespace valtor {

struct CJSONDeleter {
  void operator()(cJSON* item) const { cJSON_Delete(item); }
};

// Owns one cJSON tree, or none. What a renderer returns and what a message constructor takes.
using JSONPtr = std::unique_ptr<cJSON, CJSONDeleter>;

// Owns exactly one cJSON tree, never none: made from a null item it holds a fresh empty object.
// Move-only; a moved-from handle may only be destroyed or assigned. Like every tree, one thread at
// a time uses it.
class OwnedJSON {
 public:
  explicit OwnedJSON(cJSON* item = nullptr);
  explicit OwnedJSON(JSONPtr item);

  cJSON* get() const { return item_.get(); }
  // Hands the tree to the caller.
  JSONPtr release() { return std::move(item_); }

 private:
  JSONPtr item_;
};

// The parsed text. Text that does not parse gives an empty object; a caller that must tell the two
// apart looks at the text itself.
OwnedJSON parseJSON(const std::string& text);

struct JSONTextDeleter {
  void operator()(char* text) const { cJSON_free(text); }
};

// Owns a text that cJSON rendered, or none.
using JSONText = std::unique_ptr<char, JSONTextDeleter>;

// The item as text, formatted or compact. None for null and for an item that cannot be rendered.
JSONText renderJSON(const cJSON* item, bool formatted);

// The same as a string, "" for none.
std::string printJSON(const cJSON* item, bool formatted);

// The string that a member holds, or null when the object has no such member or it is no string.
// The text belongs to the tree. Names are compared as cJSON_GetObjectItem does: upper and lower
// case are the same, and the first of several members counts.
const char* stringMember(const cJSON* object, const char* name);

// The member when it is an array, else null.
const cJSON* arrayMember(const cJSON* object, const char* name);

// cJSON leaves out of a tree or a text what finds no memory, and does not tell. Whether that has
// happened on this thread since it asked last.
bool takeJSONFailure();
// Throws std::bad_alloc then. Asked before anything that was built leaves the process; whoever asks
// about what comes now forgets what was before.
void requireWholeJSON();

// For what is built beside the matter at hand: begins without a failure, and leaves what
// takeJSONFailure() answers afterwards as it was.
class JSONFailureScope {
 public:
  JSONFailureScope();
  ~JSONFailureScope();
  JSONFailureScope(const JSONFailureScope&) = delete;
  JSONFailureScope& operator=(const JSONFailureScope&) = delete;

 private:
  const bool outer_;
};

// Adds an item to an object under a name and gives up its ownership. When memory runs out the item
// is destroyed and the object stays as it was. Null items are ignored.
void addMember(cJSON* object, const char* name, JSONPtr item);

// Appends an item to an array; ownership as for addMember.
void addElement(cJSON* array, JSONPtr item);

}  // namespace valtor
