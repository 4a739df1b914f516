// Running the system's tools (modprobe, dmsetup, fio) from the benchmark.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace bench {

// Runs `argv` without a shell and returns what it wrote to stdout; throws
// std::runtime_error, with the command and its stderr, when it cannot be
// started or exits with a status other than 0.
std::string run_command(const std::vector<std::string>& argv);

// Loads the kernel module file `module` with insmod, after modprobe has
// loaded the modules it depends on (insmod, unlike modprobe, does not);
// throws as run_command does.
void load_module(const std::filesystem::path& module);

}  // namespace bench
