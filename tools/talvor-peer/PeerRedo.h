// PeerRedo.h — the job "redo": the engine's side of the redo ring.
#pragma once

#include <string>
#include <vector>

namespace talvorpeer {

int RunRedoJob(const std::vector<std::string>& args);
std::string RedoJobUsage();

} // namespace talvorpeer
