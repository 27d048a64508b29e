// What happens to the service before the power is cut: short scripts (scenes.txt), and the
// recording of them.
#pragma once

#include "powercut/disk.h"
#include "powercut/trace.h"

#include <string>
#include <vector>

namespace kelconf::powercut {

struct Scene {
    std::string name, script;
};
std::vector<Scene> readScenes();

struct Recording {
    std::vector<StoredFile> before; // all flushed
    std::vector<Record> trace;
    std::string broken; // the step that did not do what it is to, where the scene ended
};
// Plays the scene on an emptied device with the recorder in the programs.
Recording play(const Scene& scene);

} // namespace kelconf::powercut
