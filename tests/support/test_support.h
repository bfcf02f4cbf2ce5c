// Shared test support: what the library logged (read from a /dev/log socket of our own),
// the commands it ran (system() recorder), the activate flag, the settings store, and child
// processes that hold a lock.
#pragma once

#include "qmtnm.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace nmtest {

// ---- syslog ----
struct log_line {
    int priority;         // facility | severity, as sent
    std::string text;     // the message after "libqmtnm[pid]: ", trailing newline removed
    bool newline = false; // the message ended in a line end
};

// Binds /dev/log (the test runs in a private mount namespace with /dev an overlay) and keeps
// every datagram the library sends there.
class syslog_capture {
  public:
    syslog_capture();
    ~syslog_capture();
    // Every line received since the last clear(), waiting briefly for stragglers.
    std::vector<log_line> lines();
    std::vector<std::string> texts();
    bool contains(const std::string &text);
    void clear();

  private:
    void drain(int wait_ms);
    int fd_ = -1;
    std::vector<log_line> lines_;
};
syslog_capture &logs();

// "%-20s--> " + text, as the library prefixes every line.
std::string logged(const char *func, const std::string &text);

// ---- commands run through system() ----
std::vector<std::string> commands();
void clear_commands();
// When false, commands are recorded but not run.
void run_commands(bool run);

// ---- activate flag in /dev/shm/lcl_activate ----
uint32_t activate_flag();
void set_activate_flag(uint32_t value);

// ---- settings store ----
// Empties the store and loads the shipped factory settings.
void load_defaults();
// A string value of domain "network" (read capacity 64), or "<missing>".
std::string stored_str(const char *section, const char *key);

// A value by path ("network/network_qos/dscp") in the store's text form (46, "text"), or
// "<missing>".
std::string stored(const std::string &path);
// Writes a value by path, given in the store's text form.
void store(const std::string &path, const std::string &text);

// ---- records as the tool takes them ----
// The area's record as `qmtnm set` builds it: the stored record changed by words, field=value
// items separated by '|' (a text may hold blanks; "*text" is text repeated to fill the field,
// unterminated); for ethmac, the address text itself.
std::vector<char> record(const char *area, const std::string &words);

// ---- processes ----
// A child that takes the named semaphore and holds it until destroyed.
class sem_holder {
  public:
    explicit sem_holder(const char *name);
    ~sem_holder();
    sem_holder(const sem_holder &) = delete;
    sem_holder &operator=(const sem_holder &) = delete;

  private:
    int pid_ = -1;
    int release_fd_ = -1;
};

// The whole content of a file, or "<missing>" when it cannot be opened.
std::string file_text(const char *path);

// Runs a shell command, returns its standard output.
std::string sh(const std::string &cmd);

// Milliseconds of a monotonic clock.
int64_t now_ms();

// A test of an area's calls: the factory settings, the activate flag set, commands recorded and
// not run, the default log level and an empty log at the start of each test.
class area_test : public testing::Test {
  protected:
    void SetUp() override {
        load_defaults();
        set_activate_flag(1);
        run_commands(false);
        clear_commands();
        nm_log_level = 1;
        logs().clear();
    }
    void TearDown() override {
        run_commands(true);
        set_activate_flag(1);
        nm_log_level = 1;
    }
};

} // namespace nmtest
