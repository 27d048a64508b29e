// The rollback journal beside the live database, looked at before SQLite is let at it.
// Its format: https://www.sqlite.org/fileformat.html, section 3.
//
// backup_mutex is held around all of it.
#pragma once

namespace kelconf {

enum class LiveJournal {
    kNone,       // nothing is unfinished: none is there, or one that is empty or begins with a
                 // zero, as SQLite ends a transaction in the modes TRUNCATE and PERSIST
    kUnfinished, // of a transaction that was cut short, or it cannot be read: SQLite rolls it back,
                 // or, where its first bytes are harmed, passes over it
    kImplausible // says that the file was larger than it can have been
};

// SQLite makes the file as large as the journal says that it was before it rolls anything back: one
// flipped bit of that number is terabytes. A transaction journals every page that it cuts off, so
// the file was no larger than both are now.
LiveJournal lookAtLiveJournal();

} // namespace kelconf
