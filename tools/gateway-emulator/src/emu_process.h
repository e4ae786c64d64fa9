// Runs an external command for a configured program; every Windows/POSIX
// difference of starting a process stays in emu_process.cpp.
#pragma once

#include <cstddef>
#include <string>

#include "gateway_emulator/wire.h"

namespace kvlemu::proc {

// Runs `command` through the system's shell with `input` on its standard input;
// `output` gets at most maxOutput bytes of its standard output. False when it
// could not be started; otherwise *exitCode is its exit status.
bool run(const std::string& command, const wire::Bytes& input, size_t maxOutput, wire::Bytes& output, int* exitCode);

}  // namespace kvlemu::proc
