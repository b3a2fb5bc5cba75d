// The tables of a database on a server, and every statement that is run on them.
//
//   state    one row: what this is, and the newest version
//   clients  a row for each process that has it open
//   rows     every version of every row that somebody may need
//   ids      a sequence of ranges of 4096 ids
//
// A commit holds the lock of the row of `state`. Its transaction does not wait for the disk, so
// that those of many clients get there together; what follows it, and concerns the client's own row
// alone, does wait. What that has noted is settled: on the disk, and all before it as well. Nobody
// reads a version that is not.
//
// A client's row has
//   lease      the oldest version that it needs, or an older one
//   turn       counts its commits and connections, so that what an earlier connection has still
//              sent comes to nothing
//   committed  the version of its last commit
//   seen       the newest version when it last held the lock
//   settled    of those, the last one that is known to be on the disk
//   gone       since when its process has not been there
// and its process holds an advisory lock, shared, of the table's oid and the row's id.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "store/store.h"

namespace zel {

constexpr std::uint32_t serverFormat = 1;
constexpr std::uint32_t idsInRange = 4096;
static_assert(firstFreeId % idsInRange == 0);

enum class ServerSql : std::uint8_t {
  begin,
  commit,
  rollback,
  setUp,         // milliseconds that locks are waited for
  identify,      // -> program, format
  countTables,   // the schema's name -> how much is in it
  lock,          // -> version
  lockLoosely,   // the same, and the transaction does not wait for the disk
  lockForPrune,  // the same, and indexes are used
  enter,         // the sequence's name, the version needed -> as `enterAgain`
  enterAgain,    // client, the version needed -> client, turn, committed, lease, settled
  hurry,         // milliseconds that locks are waited for in this transaction
  keepSettled,   // client, which leaves
  leave,         // client
  newest,        // -> settled
  moveLease,     // client, lease
  read,          // ids, version -> rows
  scan,        // id, part and version before the first, id behind the last, version, limit -> rows
  changes,     // version, version -> ids, parts
  allChanges,  // the same, and the own place of every object
  newIds,      // the sequence's name, count, client -> first ids of ranges
  write,       // client, turn, base, lease, places, whole objects, rows -> version, whether it fits
  writeMore,   // client, the turn after `write`, the version before it, rows
  settle,      // client, turn
  conflicts,   // base, places, whole objects, limit -> ids
  markGone,    // client
  keepSettledOfGone,
  forgetGone,
  prune,      // limit
  statistic,  // the table's name -> version, objects, rows, bytes
  watch,      // -> sessions, conflicts, oldest
  hasSchema,  // its name -> how many there are
  makeSchema,
  makeState,
  makeClients,
  makeRows,
  makeIds,
  addRows,  // version, rows
  keyRows,
  indexRows,
  startIds,    // the sequence's name, first
  startState,  // format, version
  count
};

// The statement for a schema, whose name is quoted.
std::string textOf(ServerSql which, std::string_view schema);

}  // namespace zel
