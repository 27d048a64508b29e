// Files in the storage directory (paths::kFileStorage) that parameter values name.
#pragma once

namespace kelconf {

// True when the text contains the directory's path anywhere. False for a null pointer.
bool namesStoredFile(const char* value);

// Deletes the file whose path the value is. The path must begin with the directory and lead to a
// file below it without "..", symbolic links or doubtful turns on the way: nothing outside the
// directory is ever deleted. Anything else, and any failure, is ignored.
void deleteStoredFile(const char* value);

} // namespace kelconf
