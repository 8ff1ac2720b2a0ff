#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace valtor {

// A file that data goes to, without a buffer, so that an end at any time loses nothing.
class DataFile {
 public:
  // Takes the open stream over; the name is for errors.
  DataFile(std::FILE* stream, std::string name);

  bool isOpen() const { return stream_ != nullptr; }
  // True once a pipe has lost its reader.
  bool isBroken() const;
  // Throws CommandFailure when the stream is none or the bytes cannot be written, Interrupted when
  // a signal ends the wait for a slow reader.
  void write(std::string_view bytes);

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }  // NOLINT(*-owning-memory)
  };

  std::unique_ptr<std::FILE, Closer> stream_;
  std::string name_;
};

// Where the data of a command goes: standard output. Messages to the person go to standard error,
// through say(). One thread.
class Output {
 public:
  // Takes standard output over: what anything else in the process prints there, the stream parser
  // about broken frames for one, goes nowhere from now on. Call once.
  Output();

  // Throws CommandFailure when the bytes cannot be written.
  void write(std::string_view bytes) { file_.write(bytes); }
  void line(const std::string& text) { write(text + "\n"); }
  // Does what a write would do once a pipe has lost its reader; otherwise nothing. For a command
  // that may have nothing to write for long.
  void endWithoutReader();

  // A terminal that understands control sequences.
  bool isTerminal() const { return terminal_; }
  // On such a terminal, unless NO_COLOR is set.
  bool hasColour() const { return colour_; }

 private:
  DataFile file_;
  bool terminal_ = false;
  bool colour_ = false;
};

// Whether the descriptor is a terminal that understands control sequences.
bool isTerminal(int descriptor);

// One message on standard error, behind the name of the program.
void say(const std::string& text);
// A line on a terminal that the next message, of either kind, takes the place of.
void sayInPassing(const std::string& text);

}  // namespace valtor
