// Runs of kelconf-init under a deadline and, when wanted, with faults injected
// (tools/fault_shim.cpp), and what they leave below /mnt/nand/conf.
#pragma once

#include "support/files.h"

#include <map>
#include <string>
#include <vector>

namespace kelconf::test {

// The files of /mnt/nand/conf by name, with their content.
using Flash = std::map<std::string, std::string>;

Flash readFlash();
// Makes the directory hold exactly these files.
void restoreFlash(const Flash& files);
// The sidecar has the database's digest, whatever lies beside. Whether the rows are right is
// another question (Reference).
bool sealMatches(const Flash& files);
// The same with nothing beside the two.
bool sealed(const Flash& files);

struct InitRun {
    bool killed = false;  // by SIGKILL, which only a fault sends
    int status = -1;      // exit status when not killed, 128 + the signal for any other signal
    std::string out, err; // standard output and error
    long peak_kib = 0;    // most memory that was resident, in KiB
};

// Runs kelconf-init to its end, by SIGALRM after 60 s. `environment`: "NAME=VALUE" in addition.
InitRun runInit(const std::vector<std::string>& environment = {});

// The environment that preloads the shim with this plan (see tools/fault_shim.cpp).
std::vector<std::string> underFault(const std::string& plan = {});

struct StorageCall {
    long number;
    std::string kind, path;
};
// What it calls in an undisturbed run from the present state.
std::vector<StorageCall> traceInit();
bool isModifying(const StorageCall& call);

// What a right build of the present trees holds.
class Reference {
  public:
    // Runs an undisturbed build on an empty directory, and leaves its files there.
    Reference();
    // Empty when the database in `files` is the right one, complete and compacted, both alone
    // and as a reader finds it who opens it with all that lies beside it; else what is wrong.
    [[nodiscard]] std::string wrongWith(const Flash& files) const;
    [[nodiscard]] const Flash& files() const { return files_; }

  private:
    Flash files_;
    SqlRows content_;
};

} // namespace kelconf::test
