// libpq, the client library of PostgreSQL, loaded by its name when it is first needed, so that
// nothing here depends on it. What is declared is a part of its documented interface.
//
//   const zel::LibPq pq;
//   PGconn* connection = pq.connectStartParams(keywords, values, 0);
#pragma once

#include <cstddef>

#include "errors/failure.h"

extern "C" {
struct pg_conn;
struct pg_result;
}
using PGconn = pg_conn;
using PGresult = pg_result;

namespace zel {

// One of the parameters that a connection can have; the last one's keyword is null.
struct PqOption {
  const char* keyword;
  const char* environment;
  const char* compiled;
  const char* value;
  const char* label;
  const char* display;
  int displaySize;
};

// Values of enumerations, as they are in the binary interface.
namespace pq {
constexpr int statusOk = 0;
constexpr int statusBad = 1;
constexpr int pollingFailed = 0;
constexpr int pollingReading = 1;
constexpr int pollingWriting = 2;
constexpr int pollingOk = 3;
constexpr int resultCommand = 1;
constexpr int resultTuples = 2;
constexpr int resultFatal = 7;
constexpr int resultSync = 10;
constexpr int resultAborted = 11;
constexpr int transactionIdle = 0;
constexpr int fieldSeverity = 'V';  // not in the server's language
constexpr int fieldState = 'C';
constexpr int fieldPrimary = 'M';
}  // namespace pq

// The functions under the names that they have there, without PQ in front.
struct LibPq {
  // Loads what POVZEL_LIBPQ names; else libpq.so.5 in $TARVOLIN/lib, or where the system has it.
  // Throws ErrLoginDenied, with the package that has it, when there is none, one for another kind
  // of program, or one before 14.
  LibPq();
  ~LibPq();
  LibPq(const LibPq&) = delete;
  LibPq& operator=(const LibPq&) = delete;

  using Receiver = void (*)(void* owner, const PGresult* notice);

  int (*libVersion)() = nullptr;
  PqOption* (*conninfoParse)(const char* text, char** error) = nullptr;
  void (*conninfoFree)(PqOption* options) = nullptr;
  PGconn* (*connectStartParams)(const char* const* keywords, const char* const* values,
                                int expand) = nullptr;
  int (*connectPoll)(PGconn* connection) = nullptr;
  int (*status)(const PGconn* connection) = nullptr;
  int (*socket)(const PGconn* connection) = nullptr;
  char* (*errorMessage)(const PGconn* connection) = nullptr;
  int (*serverVersion)(const PGconn* connection) = nullptr;
  int (*transactionStatus)(const PGconn* connection) = nullptr;
  void (*finish)(PGconn* connection) = nullptr;
  Receiver (*setNoticeReceiver)(PGconn* connection, Receiver receiver, void* owner) = nullptr;
  char* (*escapeIdentifier)(PGconn* connection, const char* text, std::size_t size) = nullptr;
  void (*freemem)(void* memory) = nullptr;
  int (*setnonblocking)(PGconn* connection, int on) = nullptr;
  int (*enterPipelineMode)(PGconn* connection) = nullptr;
  int (*pipelineSync)(PGconn* connection) = nullptr;
  int (*sendPrepare)(PGconn* connection, const char* name, const char* text, int count,
                     const unsigned* types) = nullptr;
  int (*sendQueryPrepared)(PGconn* connection, const char* name, int count,
                           const char* const* values, const int* sizes, const int* formats,
                           int resultFormat) = nullptr;
  int (*flush)(PGconn* connection) = nullptr;
  int (*consumeInput)(PGconn* connection) = nullptr;
  int (*isBusy)(PGconn* connection) = nullptr;
  PGresult* (*getResult)(PGconn* connection) = nullptr;
  int (*resultStatus)(const PGresult* result) = nullptr;
  char* (*resultErrorField)(const PGresult* result, int field) = nullptr;
  int (*ntuples)(const PGresult* result) = nullptr;
  char* (*getvalue)(const PGresult* result, int row, int column) = nullptr;
  int (*getlength)(const PGresult* result, int row, int column) = nullptr;
  int (*getisnull)(const PGresult* result, int row, int column) = nullptr;
  void (*clear)(PGresult* result) = nullptr;

 private:
  void open();
  void* library_ = nullptr;
};

}  // namespace zel
