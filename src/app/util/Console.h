#pragma once

#include <ctime>
#include <string>

namespace valtor {

// The console trace: lines on standard output that record forwarding decisions and object
// lifetimes. Any thread may call these operations; a line is written as one, whatever other threads
// print. They take only the lock of the stream itself and call nothing else under it.

// Makes standard output line-buffered, so that a trace is complete up to its last line however the
// process ends. Called once, before anything is printed.
void initConsole();

// Keeps standard output from waiting for a reader (see ConsoleWriter.h). Called once, when
// descriptor 1 is what it stays and before other threads print; afterwards fileno(stdout) is -1.
void keepConsoleFromBlocking();

// Writes the local time as "HH:MM:SS.mmm" and a tab, without a newline.
void printLogTimestamp();

// Writes the time-stamp prefix and then the formatted text, as one.
void traceLine(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The prefix that printLogTimestamp writes, for a time given as seconds and microseconds.
std::string formatLogTimestamp(time_t seconds, long microseconds);

}  // namespace valtor
