// The pauses between the attempts of an update that fails.
//
// Any thread. Open at start; closed for good when the service ends, so that a storage that takes
// nothing cannot hold up its end.
#pragma once

namespace kelconf {

// Waits a second. False, at once or as soon as endUpdateRetries is called, when there is to be no
// further attempt.
bool pauseBeforeRetry();

// Cuts running pauses short and leaves every update one attempt. allowUpdateRetries undoes it.
void endUpdateRetries();
void allowUpdateRetries();

} // namespace kelconf
