#include <povzel/errmsg.h>

#include <algorithm>
#include <iterator>

namespace {

struct NumberedSymbol {
  long number;
  const char* symbol;
};

// In the order of the numbers.
constexpr NumberedSymbol numberedSymbols[] = {
    {2004, "errmsg.rtErrBadSubscript"},
    {2005, "errmsg.zelErrBadNumMsgParts"},
    {2010, "errmsg.rtErrDoesNotUnderstand"},
    {2015, "errmsg.objErrNotInColl"},
    {2016, "errmsg.repErrMaxExtents"},
    {2025, "errmsg.repErrCantCreateRepos"},
    {2028, "errmsg.repErrPreGrowFailure"},
    {2040, "errmsg.repErrExtentNotMounted"},
    {2050, "errmsg.repErrReplicateOnline"},
    {2052, "errmsg.repErrCantOpenFile"},
    {2094, "errmsg.rtErrBadArgKind"},
    {2110, "errmsg.objErrBadOffset"},
    {2120, "errmsg.objErrNotFlt"},
    {2125, "errmsg.repErrBadFileSpec"},
    {2126, "errmsg.repErrFileAlreadyExists"},
    {2129, "errmsg.repErrIncompatibleRepos"},
    {2138, "errmsg.maxRecursion"},
    {2139, "errmsg.rtErrBadSession"},
    {2140, "errmsg.rtErrNotOnlyUser"},
    {2143, "errmsg.repErrMaxOnlineRepos"},
    {2146, "errmsg.zelErrParentSession"},
    {2147, "errmsg.zelErrAlreadyLoggedIn"},
    {2154, "errmsg.repErrReposNotAttached"},
    {2155, "errmsg.repErrReposNeedsRecovery"},
    {2156, "errmsg.repErrReplicateNotMounted"},
    {2157, "errmsg.repErrReposRead"},
    {2158, "errmsg.repErrReposWrite"},
    {2161, "errmsg.objErrDateTimeOutOfRange"},
    {2162, "errmsg.objErrLongNotSmallInt"},
    {2163, "errmsg.objErrNotLong"},
    {2164, "errmsg.objErrNotChr"},
    {2182, "errmsg.repErrCantDispose"},
    {2183, "errmsg.rtErrInternal"},
    {2189, "errmsg.rtErrResolveSymFailed"},
    {2203, "errmsg.zelErrOpInProgress"},
    {2208, "errmsg.hostErrMemoryAlloc"},
    {2209, "errmsg.zelErrCatchBuffNotFound"},
    {2210, "errmsg.zelErrCatchBuffLimit"},
    {2211, "errmsg.objErrNotBoolean"},
    {2215, "errmsg.zelErrTravObjNotFound"},
    {2217, "errmsg.zelErrTravBuffTooSmall"},
    {2227, "errmsg.lgcProtcolError"},
    {2228, "errmsg.lgcProtcolError"},
    {2229, "errmsg.lgcProtcolError"},
    {2230, "errmsg.lgcProtcolError"},
    {2231, "errmsg.lgcProtcolError"},
    {2232, "errmsg.lgcProtcolError"},
    {2233, "errmsg.lgcProtcolError"},
    {2234, "errmsg.lgcProtcolError"},
    {2239, "errmsg.lgcErrInconsistSize"},
    {2240, "errmsg.lgcProtcolError"},
    {2243, "errmsg.lgcProtcolError"},
    {2251, "errmsg.lgcErrPacketKind"},
    {2260, "errmsg.zelErrActiveSessions"},
    {2261, "errmsg.objErrCorruptObj"},
    {2262, "errmsg.zelErrMaxActionArgs"},
    {2264, "errmsg.zelErrUserActionPending"},
    {2265, "errmsg.zelErrBadNumLclActionArgs"},
    {2307, "errmsg.restoreReadErr"},
    {2317, "errmsg.objErrTime_tOutOfRange"},
    {2326, "errmsg.unconvertedObj"},
    {2347, "errmsg.passwordExpire"},
    {3016, "errmsg.restoreCommitFail"},
    {3031, "errmsg.lostOtRoot"},
    {4001, "errmsg.tvErrBadRootPage"},
    {4002, "errmsg.repErrReposFull"},
    {4003, "errmsg.repErrNoFreePages"},
    {4004, "errmsg.hostFatalErrOutOfMem"},
    {4007, "errmsg.zelErrActionDefined"},
    {4009, "errmsg.shrpcConnFail"},
    {4010, "errmsg.shrpcUnexpRW"},
    {4011, "errmsg.tvErrShrpcInvalidConfig"},
    {4012, "errmsg.tvErrStopGcKell"},
    {4013, "errmsg.tvErrRemoveFromCaches"},
    {4031, "errmsg.tvErrDuringLostOt"},
    {4032, "errmsg.openTranLog"},
    {4034, "errmsg.tvErrTrvNetProtocol"},
    {4035, "errmsg.tvErrTrvNetLost"},
    {4038, "errmsg.tvErrTrvDisconnLogin"},
    {4040, "errmsg.lgcVerIncompat"},
    {4042, "errmsg.hostErrCantSpawn"},
    {4044, "errmsg.tvErrBadTarvolinVersion"},
    {4045, "errmsg.tvErrBadKellDbfVersion"},
    {4046, "errmsg.restoreSucc"},
    {4048, "errmsg.restoreLogOk"},
    {4049, "errmsg.restoreLogFail"},
    {4051, "errmsg.tvErrLoginDenial"},
    {4052, "errmsg.tvErrSigTerm"},
    {4053, "errmsg.tvErrLoginsDisabled"},
    {4057, "errmsg.tvErrTrvShutdown"},
    {4059, "errmsg.tvErrSessionShutdown"},
    {4060, "errmsg.tvErrKellNormalShutdown"},
    {4061, "errmsg.tvErrKellFatalShutdown"},
    {4065, "errmsg.netErrNoSuchTrv"},
    {4100, "errmsg.zelErrBadSessionId"},
    {4101, "errmsg.zelErrUnexpectedLnkErr"},
    {4126, "errmsg.fatalErrInternal"},
    {4136, "errmsg.netErrConnectionRefused"},
    {4137, "errmsg.netErr"},
    {4138, "errmsg.repErrSystemRepNotAttached"},
    {4139, "errmsg.rtErrShrPcNotAttached"},
    {4140, "errmsg.authErrSegLoginSeg"},
    {4141, "errmsg.rtErrPgsvrCreation"},
    {4142, "errmsg.repErrSystemRepNotAttachedNoTorv"},
    {4143, "errmsg.repErrSystemRepNotAttachedNoExtent"},
    {4144, "errmsg.repErrSystemRepNotAttachedBadPid"},
    {4145, "errmsg.repErrSystemRepNotAttachedIncompatible"},
    {4146, "errmsg.netgetpeer"},
    {4147, "errmsg.noremotekells"},
    {4148, "errmsg.nofreeframes"},
    {4149, "errmsg.lgcNetShutdown"},
    {5052, "errmsg.bugErrDbfIo"},
    {5054, "errmsg.bugErrBadOnlineRepId"},
    {5055, "errmsg.bugErrBadReplicateIdx"},
    {5057, "errmsg.bugErrTrvShutdown"},
    {5058, "errmsg.bugErrNoSystemRepos"},
    {5060, "errmsg.bugErrNoSerialization"},
    {5063, "errmsg.bugErrKellSysLogNotOpen"},
    {5065, "errmsg.bugErrBadArg"},
    {5067, "errmsg.bugErrLgcSyntax"},
    {5068, "errmsg.bugErrBadNumOfArgs"},
    {5143, "errmsg.bugErrTransTableFull"},
    {6003, "errmsg.rtErrSoftBreak"},
    {6004, "errmsg.rtErrHardBreak"},
};

constexpr bool isBefore(const NumberedSymbol& one, const NumberedSymbol& other) {
  return one.number < other.number;
}
static_assert(std::is_sorted(std::begin(numberedSymbols), std::end(numberedSymbols), isBefore));
static_assert(std::size(numberedSymbols) == 124);

}  // namespace

const char* ErrMsgTvErrNumToSym(long number) {
  const auto* found = std::lower_bound(std::begin(numberedSymbols), std::end(numberedSymbols),
                                       NumberedSymbol{number, nullptr}, isBefore);
  if (found == std::end(numberedSymbols) || found->number != number) return nullptr;
  return found->symbol;
}

const char* ErrMsgNumToSym(long number) {
  const char* symbol = ErrMsgTvErrNumToSym(number);
  return symbol != nullptr ? symbol : "errmsg.invalidErr";
}
