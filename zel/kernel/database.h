// The database as a whole: brought up before the first use, taken down at the end.
#pragma once

namespace zel {

// Makes the classes, their primitives and the methods written in the language itself. Does
// nothing when the database is open.
void openDatabase();
// Ends all sessions and frees every object.
void closeDatabase();

}  // namespace zel
