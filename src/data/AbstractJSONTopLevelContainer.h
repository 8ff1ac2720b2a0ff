#pragma once

#include <string>

#include "data/AbstractJSONBackedData.h"

namespace valtor {

// A JSON-backed object that owns one file on disk: an object with the members "version" and, under
// the container's object name, what toJSON renders. A save writes the new content beside the file
// (path + ".new"), moves the file aside (path + ".old") and the new content into its place, so that
// a process or machine that stops anywhere in it leaves a whole document, which a load finds. No
// lock: the owner serialises load, save and the changes between them. Operations block on the disk
// only; failures are logged with the object name, and whether to try again is the owner's affair.
class AbstractJSONTopLevelContainer : public AbstractJSONBackedData {
 public:
  // The key of the container's object in the file; it also opens every log line of the container.
  // The text lives as long as the process.
  virtual const char* getObjectName() const = 0;

  // Renders the container and writes it to the path; with keepPrevious what the file held before
  // stays as the previous copy. 0, or -1 after a failure, which it has logged: the newest complete
  // copy is still there then as the file or its previous copy.
  virtual int saveToFile(const char* path, bool keepPrevious) const;

  // saveToFile to the container's own path; 0 without one.
  virtual int save(bool keepPrevious) const;

  // Fills the container from its file or, without one that can be opened, from the previous copy.
  // Returns what loadFromJSON returned; -1 when there is no file, it holds no JSON, or it lacks the
  // container's object. The version is taken over even in that last case, otherwise nothing
  // changes. Aborts the process when memory runs out or the file cannot be read to its end.
  virtual int load();

  const std::string& filePath() const { return filePath_; }
  // What the loaded file said, and what the next save writes; 0 until a file said something.
  double version() const { return version_; }

 protected:
  // The file is name + ".json" in the working directory.
  explicit AbstractJSONTopLevelContainer(const std::string& name);
  // The file is name + ".json" in the directory, which the first save makes if need be (mode 0755,
  // the parent must exist). The string must outlive the container. Null: as without a directory.
  AbstractJSONTopLevelContainer(const std::string& name, const std::string* directory);

  // Writes the document to the path, through the new and the previous copy. 0, or -1 after a
  // failure, which it has logged. A failure before the new copy is complete touches neither the
  // file nor its previous copy.
  int writeToDisk(const std::string& path, const cJSON* root, bool keepPrevious) const;

  // The document in the file, or else in its previous copy; null when neither can be opened (only
  // a regular file can) or what was read is no JSON.
  JSONPtr readFromDisk(const std::string& path) const;

 private:
  int moveIntoPlace(const std::string& path, bool moveAside, bool keepPrevious) const;
  void syncFolderOf(const std::string& path) const;

  const std::string filePath_;
  double version_ = 0;
  const std::string* const directory_ = nullptr;
};

}  // namespace valtor
