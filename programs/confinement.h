// Limits around work with tools that read what strangers send. Children inherit them.
#ifndef ZEM_PROGRAMS_CONFINEMENT_H
#define ZEM_PROGRAMS_CONFINEMENT_H

#include <memory>
#include <string>

#include "programs/turn.h"

namespace program {

/// The folder of the locks and of what waits to be worked on; root's alone, so that nobody
/// else can hold a lock.
inline constexpr char kAppearanceState[] = "/run/vemo/appearance";

/// Makes the folder. As root. \return whether it is there.
bool PrepareAppearanceState();

/// One of the two turns at the picture tool, for a scope: however many requests come, no more
/// run at once; the others wait for up to ten seconds. As root.
class ToolTurn {
 public:
  ToolTurn();
  bool taken() const { return turn_ != nullptr && turn_->taken(); }

 private:
  std::unique_ptr<Turn> turn_;
};

/// For the rest of the process and its children: no network, no way to more rights, no
/// capabilities for what is run, 1 GiB of memory, 30 seconds of CPU, files of 64 MiB. As root.
/// \return false, logged, when one of them cannot be had: run nothing then.
bool ConfineTools();

/// Makes the process act as this account, groups included, also for what it runs: the saved
/// ids stay root's, so that the way back is open to this process and closed to its children.
/// Administrators act as their own accounts too. As root. \return false: give up.
bool ActAsAccount(const std::string& user);

}  // namespace program

#endif  // ZEM_PROGRAMS_CONFINEMENT_H
