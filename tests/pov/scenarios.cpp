// What every native does in the situations that matter.
#include <algorithm>
#include <regex>
#include <sstream>

#include "harness.h"

namespace harness {
namespace {

// CALL | GIVEN => STATUS | LIBRARY'S CALLS | CHANGES | ERROR ~TRACE; see ScenarioSType. What begins
// with a blank goes on with the line before. The calls begin with the session's selection, which is
// left out. Describe(CLASS) stands for the calls that describe object 4000. A call that is refused
// at once has the error alone behind its "=>". A row for several natives has NATIVE for the name of
// each. Traces have abbreviations, see trace_test.cpp.
constexpr char table[] = R"(
login 'srv' 'kell' 'usr' 'pass' 'hu' 'hp' | GetSessionId=3
 => 3 | SetNet('srv','hu','hp','kell')? Login('usr','pass') GetSessionId()? DirtyObjsInit()?
 ~;login.;     Connect: server = srv user = usr pass = pass;     Ready to ZelSetNet..
 ;     Ready to ZelLogin..;     Zel_Login OK!;     Setting up dirty object tracking..
 ;Login completed session = 3.;Returning: 3
login null 'kell' null 'pass' 'hu' 'hp' => Login:  NULL serverName argument
login 'srv' 'kell' null null 'hu' 'hp' => Login:  NULL UserName argument
login 'srv' 'kell' 'usr' null 'hu' 'hp' => Login:  NULL password argument
login 'srv' null 'usr' 'pass' null null | Login=0
 => -1 | SetNet('srv',null,null,null)? Login('usr','pass')? | | ZelLogin failure: cause unknown
logout | GetSessionId=9 => 0 | Logout()? GetSessionId()
 ~;7:  Logout session.;     After Logout: Session ID = 9;Logout completed.;Returning: 0
commit | Commit=1 => 0 | Commit()? ~;7:  Commit.;Returning: 0
commit | Commit=0 => -1 | Commit()? | | ZelCommit failure: cause unknown
abort | Abort=0 => 0 | Abort()? ~;7:  Abort.;Returning: 0

setup result | result.oop=1 => 0 | | oop=1
setup result | result.oop=0 result.objType=3 => 0 | | oop=0 objType=3
setup result | result.oop=10 => 0 | | oop=10 objType=3 valueType=0
 ~VALUE(10,Oop is NIL);Returning: 0
setup result | result.oop=6 => 0 | OopToBool(6) | oop=6 objType=3 valueType=1 valueLong=0
 ~VALUE(6,Oop is Boolean);Returning: 0
setup result | result.oop=6414 OopToChr=-56
 => 0 | OopToChr(6414) | oop=6414 objType=3 valueType=2 valueLong=-56
 ~VALUE(6414,Oop is Char);Returning: 0
setup result | result.oop=-1 => 0 | ? | oop=4294967295 objType=3 valueType=3 valueLong=-1
setup result | result.oop=22 => -1 | | oop=22 objType=3 | Logic error:  Bad object type
 ~OOP(22);   Initializing value fields for special;setup:  unknown special with oop 22
 GENERIC(Logic error:  Bad object type);Returning: -1;Returning: -1

setup result | result.oop=4000 impl=1 class=1169 size=1000 body=abcdefghijklmnopqrstuvwxyzabcd
 FetchNamedOop=4294967292
 => 0 | Describe(1169) IsKindOf(4000,1257)? | oop=4000 classOop=1169 classHistoryOop=4294967292
 objType=1 namedSize=0 indexedSize=1000 isCollection=true valueType=5 valueBytes=<256>
setup result | result.oop=4000 impl=1 class=1553 size=7 named=3 body=abcdefg IsKindOf=2
 => 0 | Describe(1553) IsKindOf(4000,1257) IsKindOf(4000,1553)? | oop=4000 classOop=1553
 classHistoryOop=0 objType=1 namedSize=3 indexedSize=4 isCollection=true isString=true
 isDBString=true valueType=8 valueBytes=<abcd>
setup result | result.oop=4000 impl=1 class=1521 size=4 body=flt4 OopToFlt=2.5
 => 0 | Describe(1521) OopToFlt(4000)? | oop=4000 classOop=1521 classHistoryOop=0 objType=1
 namedSize=0 indexedSize=4 isCollection=true valueType=4 valueDouble=2.5 valueBytes=<flt4>
 ~OOP(4000);setup: oop 4000 objType 1;setupReport on FLOAT: 2.500000;Returning: 0;Returning: 0
setup result | result.oop=4000 impl=0 class=1045 size=3 named=1 oops=10,4294967295,4000
 => 0 | Describe(1045)? | oop=4000 classOop=1045 classHistoryOop=0 objType=0 namedSize=1
 indexedSize=2 isCollection=true valueType=6 valueLongs=[10,4294967295,4000]
setup result | result.oop=4000 impl=0 class=1857 size=4 named=4 oops=8051,243,4444,10
 OopToLong=-3600000
 => 0 | Describe(1857) OopToLong(4444)? | oop=4000 classOop=1857 classHistoryOop=0 objType=0
 namedSize=4 indexedSize=0 isCollection=true valueType=9 valueInt1=2012 valueInt2=60
 valueLong=-3600000 valueLongs=[8051,243,4444,10]
 ~OOP(4000);setup: oop 4000 objType 0;setup:  OOP/NSC cache size = 4
 ;setupReport CALENDAR: 2012 60 -3600000;Returning: 0;Returning: 0
setup result | result.oop=4000 impl=5 class=950 size=2 indexable=0
 => 0 | Describe(950)? | oop=4000 classOop=950 classHistoryOop=0 objType=5 namedSize=0 indexedSize=2
setup result | result.oop=4000 impl=3 class=950
 => -1 | Describe(950) | oop=4000 classOop=950 classHistoryOop=0 objType=3 namedSize=0 indexedSize=0
 isCollection=true | Logic error:  Special oop processing
setup result | result.oop=4000 FetchObjInfo=0 => -1 | SaveObjs([4000],1)?
 FetchObjInfo(4000,1,256,*,*,*)? | oop=4000 | Failure in ZelFetchObjInfo() call
setup result | result.oop=0 result.value=0 => 0 | | oop=10 objType=3 valueType=0

isKindOf object other | object.oop=343597388392 object.valueType=7
 => 0 | IsKindOf(4712,4720)? | [343597388392,4720]
isKindOf object other | object.value=5 => 0 | IsKindOf(0,4720)?
 ~;7: isKindOf.;getOop(): Logic error in case statement;Returning: 0;Returning: 0
 ;isKindOf completed.;Returning: 0
isKindOf object other | object.value=0 => 0 | IsKindOf(10,4720)? | [10,4720]
isKindOf object other | object.value=1 object.valueLong=21474836480
 => 0 | ? IsKindOf(38,4720)? | [38,4720]
isKindOf object other | object.value=2 object.valueLong=65601
 => 0 | ? IsKindOf(2094,4720)? | [2094,4720]
isKindOf object other | object.value=3 object.valueLong=4294967301
 => 0 | LongToOop(5)? IsKindOf(23,4720)? | [23,4720]
isKindOf object other | object.value=4 object.valueDouble=-0.25
 => 0 | FltToOop(-0.25)? IsKindOf(5000,4720)? | [5000,4720]
isKindOf object other | object.value=7 object.valueString=a\xc0\x80\xc3\xa4
 => 0 | NewOop(1169)? StoreBytesInstanceOf(10,5000,1,<a\xc0\x80\xc3\xa4>,5)? IsKindOf(5000,4720)? |
 [5000,4720]
isKindOf object other | object.value=8 object.valueString=a\xed\xa0\xbd\xed\xb8\x80
 => 0 | NewOop(1553)? StoreBytesInstanceOf(10,5000,1,<a\x00=\xd8\x00\xde>,6)? IsKindOf(5000,4720)? |
 [5000,4720]
isKindOf object other | object.value=9 object.valueLong=4298567296 object.valueInt1=2012
 object.valueInt2=60
 => 0 | NewDateTime(1857,{2012,60,3600000,10})? IsKindOf(5000,4720)? | [5000,4720]
isKindOf object other | IsKindOf=-3 => 1 | IsKindOf(4716,4720)?
 ~;7: isKindOf.;Returning: 0;Returning: 0;isKindOf completed.;Returning: 1
isKindOf null other => isKindOf(): NULL obj argument
isKindOf object null | object.value=7 object.valueString=new => isKindOf(): NULL cls argument
isKindOf object other | object.value=7 => getOop(): NULL valueString

executeStr '3 + 4' result | ExecuteStr=31
 => 0 | ExecuteStr('3 + 4',10)?? | oop=31 objType=3 valueType=3 valueLong=7
 ~;7:  ExecuteStr.;     Execute Str = '3 + 4';ResultOop = 31SEVEN
executeStr null result => executeStr(): NULL execStr argument
executeStr '3' null => executeStr(): NULL result argument
executeObj object result | Execute=31
 => 0 | Execute(4716,10)?? | oop=31 objType=3 valueType=3 valueLong=7
executeObj null result => executeObj(): NULL exeObj argument
executeObj object null => executeObj(): NULL result argument
setup null => setup(): NULL result argument
perform object 'a:b:c:' array 3 result | Perform=31 element.value=7 element.valueString=new
 => 0 | NewOop(1169)? StoreBytesInstanceOf(10,5000,1,<new>,3)?
 Perform(4716,'a:b:c:',[8000,5000,8008],3)?? | oop=31 objType=3 valueType=3 valueLong=7;
 [8000,5000,8008,8012,8016]
 ~;7: Perform.;Returning: 0;     Receiver = 4716;     NumArgs = 3
 ;     jarg[0] = P;Returning: 0;     arg[0] = 8000;     jarg[1] = P;Returning: 0;     arg[1] = 5000
 ;     jarg[2] = P;Returning: 0;     arg[2] = 8008;     Selector = a:b:c:SEVEN
perform null 'x' array 1 result => perform(): NULL receiver argument
perform object null array 2 result | element.value=7 element.valueString=new
 => perform(): NULL selector argument
perform object 'x' null 1 result => perform(): NULL args argument
perform object 'x' array 2 result | hole=1 => perform(): NULL args element argument
perform object 'x' array 1 null => perform(): NULL result argument
perform object 'x' array -1 result => perform(): numArgs is negative
perform object 'x' array 6 result => perform(): numArgs exceeds the length of args
perform object 'x' array 21 result => perform(): numArgs exceeds 20
continue object other result 'not read' null | ContinueWith=31
 => 0 | NewOop(1045)? StoreOop(5000,1,4720)? ContinueWith(4716,5000,0,null)?? | oop=31 objType=3
 valueType=3 valueLong=7
continue object null result 'b\xc3\xa4d' 'at x\x0aat y' | ContinueWith=31
 => 0 | NewOop(1169)? StoreBytesInstanceOf(10,5000,1,<b\xc3\xa4d>,4)? NewOop(1169)?
 StoreBytesInstanceOf(10,5004,1,<at x\x0aat y>,9)? NewOop(1045)? StoreOop(5008,1,5000)?
 StoreOop(5008,2,5004)? ContinueWith(4716,5008,0,null)?? | oop=31 objType=3 valueType=3 valueLong=7
 ~;7:  Continue.;Returning: 0;Error continue.;Error message: b\xc3\xa4d;Error stack: ;at x;at y
 ;Continue: oop result = 31SEVEN
continue object null result null 'not read' | ContinueWith=31
 => 0 | ContinueWith(4716,1,0,null)?? | oop=31 objType=3 valueType=3 valueLong=7
continue object null result 'm' null => continue(): NULL errStk argument
continue null other result null null => continue(): NULL process argument
continue object other null null null => continue(): NULL jvResult argument

getBytes object 4294967299 4 bytes | body=abcd => 4 | FetchBytes(4716,3,*,4)? | <abcd456789>
 ~;7: getBytes start 4294967299 num 4;Returning: 0;     fetchedBytes = 4;getBytes completed.
 ;Returning: 4
getBytes object 1 10 bytes | body=abc
 => -1 | FetchBytes(4716,1,*,10)? | <abc3456789> | Number of bytes fetched does not match request
putBytes object 4294967296 3 bytes => 0 | StoreBytesInstanceOf(10,4716,0,<012>,3)?
getObjs object 2 5 array | oops=4000,10
 => 2 | FetchVaryingOops(4716,2,*,5)? SaveObjs([4000],1)? | [4000,10,8008,8012,8016]
 ~;7: GetObjs start 2 num 5;Returning: 0
 ;Zel_FetchVaryingOops: returned count 2 different from 5;7:  GetObjs oopsFetched: 2
 OOP(4000);Returning: 0VALUE(10,Oop is NIL);getObjs completed.;Returning: 2
getNamedObjs object 2 3 array | oops=4000,10
 => 2 | FetchNamedOops(4716,2,*,3)? SaveObjs([4000],1)? | [4000,10,8008,8012,8016]
putObjs object 1 3 array | element.value=7 element.valueString=new
 => 0 | NewOop(1169)? StoreBytesInstanceOf(10,5000,1,<new>,3)?
 StoreIdxOops(4716,1,[8000,5000,8008],3)? | [8000,5000,8008,8012,8016]
putNamedObjs object 9 2 array | element.value=6 => 0 | StoreNamedOops(4716,9,[8000,0],2)?
getObjs object 1 3 array | oops=10,10,10 hole=1 => -1 | FetchVaryingOops(4716,1,*,3)?
 | [10,0,8008,8012,8016] | Problem with GetObjectArrayElement in getObjs()
putObjs object 1 3 array | hole=1 => Problem with GetObjectArrayElement in pubObjs()
putNamedObjs object 1 3 array | hole=1 => Problem with GetObjectArrayElement in putNamedObjs()

removeFromExportSet array 2 | element.value=4
 => 0 | FltToOop(-77)? ReleaseOops([8000,5000],2)? | [8000,5000,8008,8012,8016]
removeFromExportSet array 251 => removeFromExportSet(): numObjs exceeds buffer size
removeFromExportSet array -1 => removeFromExportSet(): numObjs is negative
removeFromExportSet array 6 => removeFromExportSet(): numObjs exceeds the length of objs
removeFromExportSet null 1 => removeFromExportSet(): NULL objs argument
removeFromExportSet array 2 | hole=1 => removeFromExportSet(): NULL objs element argument
releaseOops longs 2 => 0 | ReleaseOops([4294967219,4294967220],2)?
changedOops longs 10 | oops=4000,4294967280,4004
 => 3 | DirtySaveObjs(*,*)? | [4000,4294967280,4004,-74,-73,-72,-71,-70,-69,-68]
 ~;7:  ChangedOops.;     Returning 3 changed oops:;     4000;     4294967280;     4004
 ;ChangedOops completed.;Returning: 3

getBytes,putBytes null 0 2147483647 null => NATIVE(): startIndex < 1
getBytes,putBytes null 1 1001 null => NATIVE(): numBytes requested exceeds buffer size
getBytes,putBytes object 1 -2147483648 bytes => NATIVE(): numBytes is negative
getBytes,putBytes object 1 11 bytes => NATIVE(): numBytes exceeds the length of bytes
getBytes,putBytes object 1 0 null => NATIVE(): NULL bytes argument
getBytes,putBytes null 1 1 bytes => NATIVE(): NULL obj argument
getNamedObjs null 1 251 null => getNamedObjs(): buffer size exceeded
getObjs,putObjs,putNamedObjs null 1 251 null => NATIVE(): numObjs requested exceeds buffer size
getObjs,getNamedObjs,putObjs,putNamedObjs null 0 2147483647 null => NATIVE(): startIndex < 1
getObjs,getNamedObjs,putObjs,putNamedObjs object 1 -1 array => NATIVE(): numObjs is negative
getObjs,getNamedObjs,putObjs,putNamedObjs object 1 6 array
 => NATIVE(): numObjs exceeds the length of objs
getObjs,getNamedObjs,putObjs,putNamedObjs object 1 1 null => NATIVE(): NULL objs argument
getObjs,getNamedObjs,putObjs,putNamedObjs null 1 1 array => NATIVE(): NULL obj argument
releaseOops,changedOops null 251 => NATIVE(): buffer size exceeded
releaseOops,changedOops longs -1 => NATIVE(): numOops is negative
releaseOops,changedOops longs 11 => NATIVE(): numOops exceeds the length of oops
releaseOops,changedOops null 1 => NATIVE(): NULL oops argument
)";

// The parts of `text` between separators and the blanks around them.
std::vector<std::string> split(const std::string& text, const char* separator) {
  const std::regex pattern(" *" + std::string(separator) + " *");
  return {std::sregex_token_iterator(text.begin(), text.end(), pattern, -1), {}};
}

// `text` without its escapes: "\x0a" is a byte.
std::string unescaped(std::string text) {
  for (std::size_t at = 0; (at = text.find("\\x", at)) != std::string::npos; ++at) {
    text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
  }
  return text;
}

ScenarioSType parse(const std::string& row) {
  const std::size_t tilde = std::min(row.find(" ~"), row.size());
  const std::vector<std::string> sides = split(row.substr(0, tilde), "=>");
  std::vector<std::string> given = split(sides.at(0), "\\|");
  std::vector<std::string> expected = split(sides.at(1), "\\|");
  given.resize(2);
  if (expected.size() == 1) {
    const bool hasHole = given[1] == "hole=1";
    expected = {"-1", "", hasHole ? "[8000,0,8008,8012,8016]" : "", expected[0]};
  }
  expected.resize(4);
  const std::string session = row.starts_with("login") ? "" : "SetSessionId(7)? ";
  const std::string calls = std::regex_replace(session + expected[1], std::regex(" (\\?|$)"), "$1");
  const std::string describe =
      "SaveObjs([4000],1)? FetchObjInfo(4000,1,256,*,*,*) FetchNamedOop($1,12)?";
  return {.call = given[0],
          .given = given[1],
          .status = std::stoi(expected[0]),
          .calls = std::regex_replace(calls, std::regex("Describe\\((\\d+)\\)"), describe),
          .changes = expected[2],
          .error = expected[3].empty() ? "" : generic(expected[3]),
          .trace = tilde < row.size() ? row.substr(tilde + 2) : ""};
}

}  // namespace

const std::vector<ScenarioSType>& scenarios() {
  static const std::vector<ScenarioSType> all = [] {
    std::vector<std::string> rows;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(' ')) {
        rows.back() += rows.back().find('~') != std::string::npos ? line.substr(1) : line;
      } else if (!line.empty()) {
        rows.push_back(line);
      }
    }
    std::vector<ScenarioSType> made;
    for (const std::string& row : rows) {
      const std::size_t end = row.find(' ');
      for (const std::string& native : split(row.substr(0, end), ",")) {
        const std::string rest = std::regex_replace(row.substr(end), std::regex("NATIVE"), native);
        made.push_back(parse(unescaped(native + rest)));
      }
    }
    return made;
  }();
  return all;
}

}  // namespace harness
