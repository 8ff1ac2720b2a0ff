#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace valtor {

// A file that data goes to, flushed after every write.
class DataFile {
 public:
  // Takes the open stream over; the name is for errors.
  DataFile(std::FILE* stream, std::string name) : stream_(stream), name_(std::move(name)) {}

  bool isOpen() const { return stream_ != nullptr; }
  // Throws CommandFailure when the stream is none or the bytes cannot be written.
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
  // about broken frames for one, lands on standard error from now on. Call once.
  Output();

  // Throws CommandFailure when the bytes cannot be written.
  void write(std::string_view bytes) { file_.write(bytes); }
  void line(const std::string& text) { write(text + "\n"); }

  bool isTerminal() const { return terminal_; }
  // On a terminal, unless NO_COLOR is set or the terminal has none.
  bool hasColour() const { return colour_; }

 private:
  DataFile file_;
  bool terminal_ = false;
  bool colour_ = false;
};

// One message on standard error, behind the name of the program.
void say(const std::string& text);

}  // namespace valtor
