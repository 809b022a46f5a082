#ifndef TANSY_HOST_COMMAND_LINE_H
#define TANSY_HOST_COMMAND_LINE_H

#include <string>

#include "Options.h"

namespace Tansy::Host {

struct CommandLine {
  OptionTexts texts;           // texts as given; no value has been checked yet
  bool check = false;          // compare catalogue and stored bytes, then end
  bool repair = false;         // with `check`: also free what nothing refers to
  bool force = false;          // with `repair`: free it even when it is much
  bool check_upgrade = false;  // say what a start would change, then end
  bool move = false;           // move catalogue and bytes, or one of them, then end
  std::string move_database;
  std::string move_storage;
  bool move_dry_run = false;
  bool move_force = false;
  bool move_cancel = false;  // instead: forget a move that has begun
  bool move_delete = false;  // instead: free the place of before
  bool backup = false;       // make a backup, or verify one, then end
  std::string backup_path;   // absolute; where backups are kept, or the one to verify or to restore
  bool backup_verify = false;
  bool backup_full = false;          // nothing is taken over from the backup before
  bool backup_even_damaged = false;  // although the bytes of some objects cannot be read
  std::string config_work;           // "print" or "check": show or check the options in force, then end
  bool restore = false;              // make a data folder from a backup, then end
  std::string print_only;            // help or version text to print; the program then ends

  // Names the piece of work after which the program ends; "" when it serves.
  std::string Work() const;
};

// Throws CStartFailure with kExitUsage.
CommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_COMMAND_LINE_H
