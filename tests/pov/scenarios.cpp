// What every native does in the situations that matter: the library calls, the status, the fields
// written, the error report and the trace.
#include "harness.h"

namespace harness {
namespace {

using recorder::describe;
using recorder::state;

constexpr char select[] = "ZelSetSessionId(7) Zel? ";

// The trace of an error of the bridge's own, up to the native's return.
std::string refusal(const std::string& message) {
  return "GENERIC ERROR: " + message +
         "\nZEL ERROR: \n  Error:        2318\n  Message:      " + message +
         "\n  Category Oop: 10\n  Context Oop:  10\n  FatalFlag:    0\n  Number Args:  0\n" +
         "Generic Error return: " + message + "\n";
}

constexpr char libraryTrace[] =
    "ZEL ERROR: \n  Error:        2101\n  Message:      something failed\n"
    "  Category Oop: 231169\n  Context Oop:  777\n  FatalFlag:    0\n  Number Args:  3\n"
    "        ArgOop[0]:  11\n        ArgOop[1]:  -1\n        ArgOop[2]:  13\n";

// The trace of setupReport when `oop` is an immediate value.
std::string immediate(const std::string& oop, const std::string& kind) {
  return "setupReport: initial oop " + oop + "\nsetupReport: oop set to " + oop +
         "\n   Initializing value fields for special\n" + kind + "\nReturning: 0\n";
}

// The trace of setupReport when `oop` is an object that is described in full.
std::string object(const std::string& oop, const std::string& rest) {
  return "setupReport: initial oop " + oop + "\nsetupReport: oop set to " + oop + "\n" + rest +
         "Returning: 0\n";
}

jint setup(Context& c, std::int64_t oop) {
  jvm::setNumber(c.result, "oop", oop);
  return c.run(NATIVE(setup), session, c.result, c.error);
}

// Asks whether a new value is a kind of nil: the value's oop shows in the library call.
jint convert(Context& c) {
  return c.run(NATIVE(isKindOf), session, c.object, Context::value(c.other, 0), c.error);
}

std::string oops(std::initializer_list<OopType> values) {
  std::string bytes;
  for (const OopType value : values) bytes.append(reinterpret_cast<const char*>(&value), 4);
  return bytes;
}

jint login(Context& c, bool server, bool user, bool password, bool optional) {
  const auto text = [](bool wanted, const char* value) {
    return wanted ? jvm::newString(value) : nullptr;
  };
  state.results["ZelGetSessionId"] = 3;
  return c.run(NATIVE(login), text(server, "srv"), text(optional, "kell"), text(user, "usr"),
               text(password, "pass"), text(optional, "hostusr"), text(optional, "hostpass"),
               c.error);
}

using Result = std::vector<ScenarioSType>;

void addSessions(Result& all) {
  const std::string connect =
      "login.\n     Connect: server = srv user = usr pass = pass\n     Ready to ZelSetNet..\n";
  all.push_back({"login", [](Context& c) { return login(c, true, true, true, true); }, 3,
                 "ZelSetNet('srv','hostusr','hostpass','kell') Zel? ZelLogin('usr','pass') "
                 "ZelGetSessionId() Zel? ZelDirtyObjsInit() Zel?",
                 "", "",
                 connect + "     Ready to ZelLogin..\n     Zel_Login OK!\n"
                           "     Setting up dirty object tracking..\n"
                           "Login completed session = 3.\nReturning: 3\n"});
  all.push_back({"login without the optional names",
                 [](Context& c) { return login(c, true, true, true, false); }, 3,
                 "ZelSetNet('srv',null,null,null) Zel? ZelLogin('usr','pass') "
                 "ZelGetSessionId() Zel? ZelDirtyObjsInit() Zel?",
                 "", "", ""});
  const std::string noServer = "Login:  NULL serverName argument";
  all.push_back({"login without server",
                 [](Context& c) { return login(c, false, false, true, true); }, -1, "", "",
                 generic(noServer), "login.\n" + refusal(noServer) + "Returning: -1\n"});
  all.push_back({"login without user",
                 [](Context& c) { return login(c, true, false, false, true); }, -1, "", "",
                 generic("Login:  NULL UserName argument"), ""});
  all.push_back({"login without password",
                 [](Context& c) { return login(c, true, true, false, true); }, -1, "", "",
                 generic("Login:  NULL password argument"), ""});
  const std::string unknown = "ZelLogin failure: cause unknown";
  all.push_back({"login refused without a cause",
                 [](Context& c) {
                   state.results["ZelLogin"] = 0;
                   return login(c, true, true, true, false);
                 },
                 -1, "ZelSetNet('srv',null,null,null) Zel? ZelLogin('usr','pass') Zel?", "",
                 generic(unknown),
                 connect + "     Ready to ZelLogin..\n" + refusal(unknown) + "Returning: -1\n"});
  all.push_back({"login refused with an error",
                 [](Context& c) {
                   state.results["ZelLogin"] = 0;
                   state.failName = "ZelLogin";
                   state.failAt = 1;
                   return login(c, true, true, true, false);
                 },
                 -1, "ZelSetNet('srv',null,null,null) Zel? ZelLogin('usr','pass') Zel?", "",
                 libraryError(),
                 connect + "     Ready to ZelLogin..\n" + libraryTrace + "Returning: -1\n"});
  all.push_back({"logout",
                 [](Context& c) {
                   state.results["ZelGetSessionId"] = 9;
                   return c.run(NATIVE(logout), session, c.error);
                 },
                 0, "ZelSetSessionId(7) Zel? ZelLogout() Zel? ZelGetSessionId()", "", "",
                 "7:  Logout session.\n     After Logout: Session ID = 9\nLogout completed.\n"
                 "Returning: 0\n"});
}

void addImmediates(Result& all) {
  const auto add = [&all](const char* name, jint (*run)(Context&), const std::string& library,
                          const std::string& fields, const std::string& trace) {
    all.push_back({name, run, 0, select + library, fields, "",
                   trace.empty() ? "" : trace + "Returning: 0\n"});
  };
  add(
      "oop 1", [](Context& c) { return setup(c, 1); }, "", "oop=1",
      "setupReport: initial oop 1\nsetupReport: oop set to 1\nReturning: 0\n");
  add(
      "oop 0 of an existing object",
      [](Context& c) {
        jvm::setNumber(c.result, "objType", 3);
        return setup(c, 0);
      },
      "", "oop=0 objType=3",
      "setupReport: initial oop 0\nReturning: 0\nsetupReport: oop set to 0\nReturning: 0\n");
  add(
      "nil", [](Context& c) { return setup(c, 10); }, "", "oop=10 objType=3 valueType=0",
      immediate("10", "Oop is NIL"));
  add(
      "false", [](Context& c) { return setup(c, 6); }, "ZelOopToBool(6)",
      "oop=6 objType=3 valueType=1 valueLong=0", immediate("6", "Oop is Boolean"));
  add(
      "true",
      [](Context& c) {
        state.results["ZelOopToBool"] = 5;
        return setup(c, 38);
      },
      "ZelOopToBool(38)", "oop=38 objType=3 valueType=1 valueLong=1", "");
  add(
      "character",
      [](Context& c) {
        state.results["ZelOopToChr"] = static_cast<char>(200);
        return setup(c, 200 << 5 | 14);
      },
      "ZelOopToChr(6414)", "oop=6414 objType=3 valueType=2 valueLong=-56",
      immediate("6414", "Oop is Char"));
  add(
      "integer 1", [](Context& c) { return setup(c, 7); }, "Zel?",
      "oop=7 objType=3 valueType=3 valueLong=1",
      immediate("7", "setup:  oop 7 is a small int, value = 1"));
  add(
      "integer -1 with dirty high bits", [](Context& c) { return setup(c, -1); }, "Zel?",
      "oop=4294967295 objType=3 valueType=3 valueLong=-1", "");
  add(
      "least integer", [](Context& c) { return setup(c, 0x80000003); }, "Zel?",
      "oop=2147483651 objType=3 valueType=3 valueLong=-536870912", "");
  const std::string bad = "Logic error:  Bad object type";
  all.push_back({"unknown immediate", [](Context& c) { return setup(c, 18); }, -1, select,
                 "oop=18 objType=3", generic(bad),
                 "setupReport: initial oop 18\nsetupReport: oop set to 18\n"
                 "   Initializing value fields for special\n"
                 "setup:  unknown special with oop 18\n" +
                     refusal(bad) + "Returning: -1\nReturning: -1\n"});
}

void addObjects(Result& all) {
  const std::string fetch =
      std::string(select) + "ZelSaveObjs([4000],1) Zel? ZelFetchObjInfo(4000,1,256,*,*,*)";
  const auto add = [&](const char* name, jint (*run)(Context&), const std::string& library,
                       const std::string& fields, const std::string& trace) {
    all.push_back({name, run, 0, fetch + " " + library, fields, "",
                   trace.empty() ? "" : object("4000", trace) + "Returning: 0\n"});
  };
  add(
      "long string",
      [](Context& c) {
        describe(1, 1169, 1000);
        state.body = std::string(1000, 's');
        state.results = {{"ZelIsKindOf", 0}, {"ZelFetchNamedOop", 0xfffffffc}};
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(1169,12) Zel? ZelIsKindOf(4000,1257) Zel?",
      "oop=4000 classOop=1169 classHistoryOop=4294967292 objType=1 namedSize=0 indexedSize=1000 "
      "isCollection=1 valueType=5 valueBytes=<256>",
      "setup: oop 4000 objType 1\n");
  add(
      "double-byte string",
      [](Context& c) {
        describe(1, 1553, 7, 3);
        state.body = "abcdefg";
        state.results["ZelIsKindOf"] = 2;
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(1553,12) Zel? ZelIsKindOf(4000,1257) ZelIsKindOf(4000,1553) Zel?",
      "oop=4000 classOop=1553 classHistoryOop=0 objType=1 namedSize=3 indexedSize=4 "
      "isCollection=1 isString=1 isDBString=1 valueType=8 valueBytes=<abcd>",
      "");
  add(
      "empty bytes",
      [](Context& c) {
        describe(1, 900, 0);
        state.info.isIndexable = 0;
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(900,12) Zel? ZelIsKindOf(4000,1257) Zel?",
      "oop=4000 classOop=900 classHistoryOop=0 objType=1 namedSize=0 indexedSize=0 valueType=5 "
      "valueBytes=<>",
      "");
  add(
      "float",
      [](Context& c) {
        describe(1, 1521, 4);
        state.body = "flt4";
        state.results["ZelOopToFlt"] = 2.5;
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(1521,12) Zel? ZelOopToFlt(4000) Zel?",
      "oop=4000 classOop=1521 classHistoryOop=0 objType=1 namedSize=0 indexedSize=4 isCollection=1 "
      "valueType=4 valueDouble=2.5 valueBytes=<flt4>",
      "setup: oop 4000 objType 1\nsetupReport on FLOAT: 2.500000\n");
  add(
      "array",
      [](Context& c) {
        describe(0, 1045, 3, 1);
        state.body = oops({10, 0xffffffff, 4000});
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(1045,12) Zel? Zel?",
      "oop=4000 classOop=1045 classHistoryOop=0 objType=0 namedSize=1 indexedSize=2 isCollection=1 "
      "valueType=6 valueLongs=[10,4294967295,4000]",
      "setup: oop 4000 objType 0\nsetup:  OOP/NSC cache size = 3\n");
  add(
      "empty set",
      [](Context& c) {
        describe(2, 950, 0);
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(950,12) Zel? Zel?",
      "oop=4000 classOop=950 classHistoryOop=0 objType=2 namedSize=0 indexedSize=0 isCollection=1 "
      "valueType=6 valueLongs=[]",
      "");
  add(
      "date-time",
      [](Context& c) {
        describe(0, 1857, 4, 4);
        state.body = oops({2012 << 2 | 3, 60 << 2 | 3, 4444, 10});
        state.results["ZelOopToLong"] = -3600000;
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(1857,12) Zel? ZelOopToLong(4444) Zel?",
      "oop=4000 classOop=1857 classHistoryOop=0 objType=0 namedSize=4 indexedSize=0 isCollection=1 "
      "valueType=9 valueInt1=2012 valueInt2=60 valueLong=-3600000 valueLongs=[8051,243,4444,10]",
      "setup: oop 4000 objType 0\nsetup:  OOP/NSC cache size = 4\n"
      "setupReport CALENDAR: 2012 60 -3600000\n");
  add(
      "other kind",
      [](Context& c) {
        describe(5, 950, 2);
        return setup(c, 4000);
      },
      "ZelFetchNamedOop(950,12) Zel? Zel?",
      "oop=4000 classOop=950 classHistoryOop=0 objType=5 namedSize=0 indexedSize=2 isCollection=1",
      "");
  const std::string special = "Logic error:  Special oop processing";
  all.push_back({"special object",
                 [](Context& c) {
                   describe(3, 950, 0);
                   return setup(c, 4000);
                 },
                 -1, fetch + " ZelFetchNamedOop(950,12) Zel?",
                 "oop=4000 classOop=950 classHistoryOop=0 objType=3 namedSize=0 indexedSize=0 "
                 "isCollection=1",
                 generic(special), ""});
  all.push_back({"no description",
                 [](Context& c) {
                   state.results["ZelFetchObjInfo"] = 0;
                   return setup(c, 4000);
                 },
                 -1, fetch + " Zel?", "oop=4000", generic("Failure in ZelFetchObjInfo() call"),
                 ""});
  all.push_back({"error instead of a description",
                 [](Context& c) {
                   state.results["ZelFetchObjInfo"] = 0;
                   state.failName = "ZelFetchObjInfo";
                   state.failAt = 1;
                   return setup(c, 4000);
                 },
                 -1, fetch + " Zel?", "oop=4000", libraryError(), ""});
}

// New values as arguments.
void addValues(Result& all) {
  const auto add = [&all](const char* name, jint (*run)(Context&), const std::string& library,
                          const std::string& made, const std::string& trace) {
    all.push_back({name, run, 0, select + library,
                   (made.empty() ? "" : "object=" + made + "; ") + "other=10", "",
                   trace.empty() ? ""
                                 : "7: isKindOf.\n" + trace +
                                       "Returning: 0\nReturning: 0\nisKindOf completed.\n"
                                       "Returning: 0\n"});
  };
  add(
      "existing object",
      [](Context& c) {
        Context::existing(c.object, 0x5000001268LL);
        jvm::setNumber(c.object, "valueType", 7);
        return convert(c);
      },
      "ZelIsKindOf(4712,10) Zel?", "343597388392", "");
  add(
      "no value",
      [](Context& c) {
        Context::value(c.object, -1);
        return convert(c);
      },
      "ZelIsKindOf(0,10) Zel?", "", "");
  add(
      "value of bytes",
      [](Context& c) {
        Context::value(c.object, 5);
        return convert(c);
      },
      "ZelIsKindOf(0,10) Zel?", "", "getOop(): Logic error in case statement\n");
  add(
      "value of an unknown type",
      [](Context& c) {
        Context::value(c.object, -128);
        return convert(c);
      },
      "ZelIsKindOf(0,10) Zel?", "", "");
  add(
      "value false",
      [](Context& c) {
        Context::value(c.object, 1, 0);
        return convert(c);
      },
      "Zel? ZelIsKindOf(6,10) Zel?", "6", "");
  add(
      "value true",
      [](Context& c) {
        Context::value(c.object, 1, 0x500000000LL);
        return convert(c);
      },
      "Zel? ZelIsKindOf(38,10) Zel?", "38", "");
  add(
      "value A",
      [](Context& c) {
        Context::value(c.object, 2, 65 + 65536);
        return convert(c);
      },
      "Zel? ZelIsKindOf(2094,10) Zel?", "2094", "");
  add(
      "value integer",
      [](Context& c) {
        Context::value(c.object, 3, 4294967296LL + 5);
        return convert(c);
      },
      "ZelLongToOop(5) Zel? ZelIsKindOf(23,10) Zel?", "23", "");
  add(
      "value float",
      [](Context& c) {
        Context::value(c.object, 4);
        jvm::setReal(c.object, "valueDouble", -0.25);
        return convert(c);
      },
      "ZelFltToOop(-0.25) Zel? ZelIsKindOf(5000,10) Zel?", "5000", "");
  add(
      "value string",
      [](Context& c) {
        Context::textValue(c.object, 7, std::u16string(u"a\0\u00e4", 3));
        return convert(c);
      },
      "ZelNewOop(1169) Zel? ZelStoreBytesInstanceOf(10,5000,1,<a\\xc0\\x80\\xc3\\xa4>,5) Zel? "
      "ZelIsKindOf(5000,10) Zel?",
      "5000", "");
  add(
      "value empty string",
      [](Context& c) {
        Context::textValue(c.object, 7, u"");
        return convert(c);
      },
      "ZelNewOop(1169) Zel? ZelStoreBytesInstanceOf(10,5000,1,<>,0) Zel? "
      "ZelIsKindOf(5000,10) Zel?",
      "5000", "");
  add(
      "value double-byte string",
      [](Context& c) {
        Context::textValue(c.object, 8, u"a\U0001F600");
        return convert(c);
      },
      "ZelNewOop(1553) Zel? "
      "ZelStoreBytesInstanceOf(10,5000,1,<a\\x00=\\xd8\\x00\\xde>,6) Zel? "
      "ZelIsKindOf(5000,10) Zel?",
      "5000", "");
  add(
      "value date-time",
      [](Context& c) {
        Context::value(c.object, 9, 3600000 + 4294967296LL);
        jvm::setNumber(c.object, "valueInt1", 2012);
        jvm::setNumber(c.object, "valueInt2", 60);
        return convert(c);
      },
      "ZelNewDateTime(1857,{2012,60,3600000,10}) Zel? ZelIsKindOf(5000,10) Zel?", "5000",
      "CALENDAR: yr 2012 day 60 ms 4298567296\n");
  all.push_back({"setup of a new string",
                 [](Context& c) {
                   Context::textValue(c.result, 7, u"new");
                   describe(1, 1169, 3);
                   state.body = "new";
                   return setup(c, 0);
                 },
                 0,
                 std::string(select) +
                     "ZelNewOop(1169) Zel? ZelStoreBytesInstanceOf(10,5000,1,<new>,3) Zel? "
                     "ZelSaveObjs([5000],1) Zel? ZelFetchObjInfo(5000,1,256,*,*,*) "
                     "ZelFetchNamedOop(1169,12) Zel? ZelIsKindOf(5000,1257) Zel?",
                 "oop=5000 classOop=1169 classHistoryOop=0 objType=1 namedSize=0 indexedSize=3 "
                 "isCollection=1 valueType=5 valueLong=0 valueBytes=<new>",
                 "", ""});
}

void addExecution(Result& all) {
  const std::string three = immediate("31", "setup:  oop 31 is a small int, value = 7");
  const char* const seven = "oop=31 objType=3 valueType=3 valueLong=7";
  all.push_back(
      {"execute a text",
       [](Context& c) {
         state.results["ZelExecuteStr"] = 31;
         return c.run(NATIVE(executeStr), session, jvm::newString("3 + 4"), c.result, c.error);
       },
       0, std::string(select) + "ZelExecuteStr('3 + 4',10) Zel? Zel?", seven, "",
       "7:  ExecuteStr.\n     Execute Str = '3 + 4'\nResultOop = 31\n" + three + "Returning: 0\n"});
  all.push_back({"execute a text that fails",
                 [](Context& c) {
                   state.results["ZelExecuteStr"] = 1;
                   state.failName = "ZelExecuteStr";
                   state.failAt = 1;
                   return c.run(NATIVE(executeStr), session, jvm::newString("3 +"), c.result,
                                c.error);
                 },
                 -1, std::string(select) + "ZelExecuteStr('3 +',10) Zel?", "", libraryError(),
                 std::string("7:  ExecuteStr.\n     Execute Str = '3 +'\nResultOop = 1\n") +
                     libraryTrace + "Returning: -1\n"});
  all.push_back(
      {"execute an object",
       [](Context& c) {
         state.results["ZelExecute"] = 31;
         return c.run(NATIVE(executeObj), session, c.object, c.result, c.error);
       },
       0, std::string(select) + "ZelExecute(4716,10) Zel? Zel?", seven, "",
       "7:  ExecuteObj.\nReturning: 0\n     Execute str oop = 4716\n" + three + "Returning: 0\n"});
  all.push_back({"perform without arguments",
                 [](Context& c) {
                   state.results["ZelPerform"] = 31;
                   return c.run(NATIVE(perform), session, c.object, jvm::newString("size"),
                                jobjectArray(nullptr), 0, c.result, c.error);
                 },
                 0, std::string(select) + "ZelPerform(4716,'size',[],0) Zel? Zel?", seven, "",
                 "7: Perform.\nReturning: 0\n     Receiver = 4716\n     NumArgs = 0\n"
                 "     Selector = size\n" +
                     three + "Returning: 0\n"});
  all.push_back({"perform with three arguments",
                 [](Context& c) {
                   state.results["ZelPerform"] = 31;
                   Context::textValue(c.element[1], 7, u"new");
                   return c.run(NATIVE(perform), session, c.object, jvm::newString("a:b:c:"),
                                c.array, 3, c.result, c.error);
                 },
                 0,
                 std::string(select) +
                     "ZelNewOop(1169) Zel? ZelStoreBytesInstanceOf(10,5000,1,<new>,3) Zel? "
                     "ZelPerform(4716,'a:b:c:',[8000,5000,8008],3) Zel? Zel?",
                 std::string(seven) + "; 8000 5000 8008 8012 8016", "",
                 "7: Perform.\nReturning: 0\n     Receiver = 4716\n     NumArgs = 3\n"
                 "     jarg[0] = P\nReturning: 0\n     arg[0] = 8000\n"
                 "     jarg[1] = P\nReturning: 0\n     arg[1] = 5000\n"
                 "     jarg[2] = P\nReturning: 0\n     arg[2] = 8008\n"
                 "     Selector = a:b:c:\n" +
                     three + "Returning: 0\n"});
  const std::string process = "7:  Continue.\nReturning: 0\n";
  const std::string resumed = "Continue: oop result = 31\n" + three + "Returning: 0\n";
  all.push_back({"continue normally",
                 [](Context& c) {
                   state.results["ZelContinueWith"] = 31;
                   return c.run(NATIVE(continue), session, c.object, c.other, c.result,
                                jvm::newString("not read"), jstring(nullptr), c.error);
                 },
                 0,
                 std::string(select) + "ZelNewOop(1045) Zel? ZelStoreOop(5000,1,4720) Zel? "
                                       "ZelContinueWith(4716,5000,0,null) Zel? Zel?",
                 seven, "", process + "Normal continue.\nReturning: 0\n" + resumed});
  all.push_back(
      {"continue with an error",
       [](Context& c) {
         state.results["ZelContinueWith"] = 31;
         return c.run(NATIVE(continue), session, c.object, jobject(nullptr), c.result,
                      jvm::newString(u"b\u00e4d"), jvm::newString("at x\nat y"), c.error);
       },
       0,
       std::string(select) +
           "ZelNewOop(1169) Zel? ZelStoreBytesInstanceOf(10,5000,1,<b\\xc3\\xa4d>,4) Zel? "
           "ZelNewOop(1169) Zel? "
           "ZelStoreBytesInstanceOf(10,5004,1,<at x\\x0aat y>,9) Zel? "
           "ZelNewOop(1045) Zel? ZelStoreOop(5008,1,5000) Zel? "
           "ZelStoreOop(5008,2,5004) Zel? ZelContinueWith(4716,5008,0,null) Zel? Zel?",
       seven, "",
       process + "Error continue.\nError message: b\u00e4d\nError stack: \nat x\nat y\n" +
           resumed});
  all.push_back({"continue after an interrupt",
                 [](Context& c) {
                   state.results["ZelContinueWith"] = 31;
                   return c.run(NATIVE(continue), session, c.object, jobject(nullptr), c.result,
                                jstring(nullptr), jvm::newString("not read"), c.error);
                 },
                 0, std::string(select) + "ZelContinueWith(4716,1,0,null) Zel? Zel?", seven, "",
                 process + "Interrupt continue.\n" + resumed});
}

void addTransfers(Result& all) {
  all.push_back({"getBytes",
                 [](Context& c) {
                   state.body = "abcd";
                   return c.run(NATIVE(getBytes), session, c.object, 4294967296LL + 3, 4, c.bytes,
                                c.error);
                 },
                 4, std::string(select) + "ZelFetchBytes(4716,3,*,4) Zel?", "abcd456789", "",
                 "7: getBytes start 4294967299 num 4\nReturning: 0\n     fetchedBytes = 4\n"
                 "getBytes completed.\nReturning: 4\n"});
  const std::string fewer = "Number of bytes fetched does not match request";
  all.push_back(
      {"getBytes, fewer",
       [](Context& c) {
         state.body = "abc";
         return c.run(NATIVE(getBytes), session, c.object, jlong{1}, 10, c.bytes, c.error);
       },
       -1, std::string(select) + "ZelFetchBytes(4716,1,*,10) Zel?", "abc3456789", generic(fewer),
       "7: getBytes start 1 num 10\nReturning: 0\n     fetchedBytes = 3\n" + refusal(fewer) +
           "Returning: -1\n"});
  all.push_back({"putBytes",
                 [](Context& c) {
                   return c.run(NATIVE(putBytes), session, c.object, 4294967296LL, 3, c.bytes,
                                c.error);
                 },
                 0, std::string(select) + "ZelStoreBytesInstanceOf(10,4716,0,<012>,3) Zel?", "", "",
                 "7: putBytes start 4294967296 num 3\nReturning: 0\nputBytes completed.\n"
                 "Returning: 0\n"});
  const std::string described = object("4000", "") + immediate("10", "Oop is NIL");
  all.push_back(
      {"getObjs, fewer",
       [](Context& c) {
         state.oops = {4000, 10};
         return c.run(NATIVE(getObjs), session, c.object, jlong{2}, 5, c.array, c.error);
       },
       2, std::string(select) + "ZelFetchVaryingOops(4716,2,*,5) Zel? ZelSaveObjs([4000],1) Zel?",
       "4000 10 8008 8012 8016", "",
       "7: GetObjs start 2 num 5\nReturning: 0\n"
       "Zel_FetchVaryingOops: returned count 2 different from 5\n"
       "7:  GetObjs oopsFetched: 2\n" +
           described + "getObjs completed.\nReturning: 2\n"});
  all.push_back(
      {"getNamedObjs",
       [](Context& c) {
         state.oops = {4000, 10};
         return c.run(NATIVE(getNamedObjs), session, c.object, jlong{2}, 3, c.array, c.error);
       },
       2, std::string(select) + "ZelFetchNamedOops(4716,2,*,3) Zel? ZelSaveObjs([4000],1) Zel?",
       "4000 10 8008 8012 8016", "",
       "7: getNamedObjs start 2 num 3\nReturning: 0\n" + described +
           "getNamedObjs completed.\nReturning: 2\n"});
  all.push_back({"getObjs without an element",
                 [](Context& c) {
                   state.oops = {10, 10, 10};
                   c.env->SetObjectArrayElement(c.array, 1, nullptr);
                   return c.run(NATIVE(getObjs), session, c.object, jlong{1}, 3, c.array, c.error);
                 },
                 -1, std::string(select) + "ZelFetchVaryingOops(4716,1,*,3) Zel?",
                 "10 null 8008 8012 8016",
                 generic("Problem with GetObjectArrayElement in getObjs()"), ""});
  all.push_back({"putObjs",
                 [](Context& c) {
                   Context::textValue(c.element[1], 7, u"new");
                   return c.run(NATIVE(putObjs), session, c.object, jlong{1}, 3, c.array, c.error);
                 },
                 0,
                 std::string(select) +
                     "ZelNewOop(1169) Zel? ZelStoreBytesInstanceOf(10,5000,1,<new>,3) Zel? "
                     "ZelStoreIdxOops(4716,1,[8000,5000,8008],3) Zel?",
                 "8000 5000 8008 8012 8016", "",
                 "7: putObjs start 1 num 3\nReturning: 0\nReturning: 0\nReturning: 0\n"
                 "Returning: 0\nputObjs completed.\nReturning: 0\n"});
  all.push_back({"putNamedObjs of a value that is none",
                 [](Context& c) {
                   Context::value(c.element[0], 6);
                   return c.run(NATIVE(putNamedObjs), session, c.object, jlong{9}, 2, c.array,
                                c.error);
                 },
                 0, std::string(select) + "ZelStoreNamedOops(4716,9,[0,8004],2) Zel?", "", "",
                 "7: putNamedObjs start 9 num 2\nReturning: 0\n"
                 "getOop(): Logic error in case statement\nReturning: 0\nReturning: 0\n"
                 "putNamedObjs completed.\nReturning: 0\n"});
  const struct {
    const char* name;
    jint (*run)(Context&);
    const char* native;
  } missing[] = {
      {"getNamedObjs without an element",
       [](Context& c) {
         state.oops = {10};
         c.env->SetObjectArrayElement(c.array, 0, nullptr);
         return c.run(NATIVE(getNamedObjs), session, c.object, jlong{1}, 1, c.array, c.error);
       },
       "getNamedObjs"},
      {"putObjs without an element",
       [](Context& c) {
         c.env->SetObjectArrayElement(c.array, 0, nullptr);
         return c.run(NATIVE(putObjs), session, c.object, jlong{1}, 1, c.array, c.error);
       },
       "pubObjs"},
      {"putNamedObjs without an element",
       [](Context& c) {
         c.env->SetObjectArrayElement(c.array, 0, nullptr);
         return c.run(NATIVE(putNamedObjs), session, c.object, jlong{1}, 1, c.array, c.error);
       },
       "putNamedObjs"},
  };
  for (const auto& m : missing) {
    const bool get = m.native[0] == 'g';
    all.push_back(
        {m.name, m.run, -1, std::string(select) + (get ? "ZelFetchNamedOops(4716,1,*,1) Zel?" : ""),
         "null 8004 8008 8012 8016",
         generic(std::string("Problem with GetObjectArrayElement in ") + m.native + "()"), ""});
  }
}

void addSets(Result& all) {
  all.push_back({"removeFromExportSet",
                 [](Context& c) {
                   Context::value(c.element[1], 4);
                   return c.run(NATIVE(removeFromExportSet), session, c.array, 2, c.error);
                 },
                 0,
                 std::string(select) + "ZelFltToOop(-77) Zel? ZelReleaseOops([8000,5000],2) Zel?",
                 "8000 5000 8008 8012 8016", "",
                 "7:  removeFromExportSet.\n     jobj[0] = P\nReturning: 0\n     oop[0] = 8000\n"
                 "     jobj[1] = P\nReturning: 0\n     oop[1] = 5000\n"
                 "removeFromExportSet completed.\nReturning: 0\n"});
  all.push_back({"releaseOops",
                 [](Context& c) {
                   const jlong values[] = {4294967296LL + 20, -1};
                   c.env->SetLongArrayRegion(c.longs, 0, 2, values);
                   return c.run(NATIVE(releaseOops), session, c.longs, 2, c.error);
                 },
                 0, std::string(select) + "ZelReleaseOops([20,4294967295],2) Zel?",
                 "[4294967316,-1,-77,-77,-77,-77,-77,-77,-77,-77]", "",
                 "7:  ReleaseOops.\n     Releasing 2 oops:\n     4294967316\n     -1\n"
                 "ReleaseOops completed.\nReturning: 0\n"});
  all.push_back(
      {"releaseOops of none",
       [](Context& c) { return c.run(NATIVE(releaseOops), session, c.longs, 0, c.error); }, 0,
       std::string(select) + "ZelReleaseOops([],0) Zel?", "", "", ""});
  all.push_back({"changedOops",
                 [](Context& c) {
                   state.oops = {4000, 0xfffffff0, 4004};
                   return c.run(NATIVE(changedOops), session, c.longs, 10, c.error);
                 },
                 3, std::string(select) + "ZelDirtySaveObjs(*,*10) Zel?",
                 "[4000,4294967280,4004,-77,-77,-77,-77,-77,-77,-77]", "",
                 "7:  ChangedOops.\n     Returning 3 changed oops:\n     4000\n     4294967280\n"
                 "     4004\nChangedOops completed.\nReturning: 3\n"});
  all.push_back(
      {"changedOops, none",
       [](Context& c) { return c.run(NATIVE(changedOops), session, c.longs, 10, c.error); }, 0,
       std::string(select) + "ZelDirtySaveObjs(*,*10) Zel?", "", "", ""});
  all.push_back({"isKindOf",
                 [](Context& c) {
                   state.results["ZelIsKindOf"] = 300;
                   return c.run(NATIVE(isKindOf), session, c.object, c.other, c.error);
                 },
                 300, std::string(select) + "ZelIsKindOf(4716,4720) Zel?", "", "",
                 "7: isKindOf.\nReturning: 0\nReturning: 0\nisKindOf completed.\n"
                 "Returning: 300\n"});
}

}  // namespace

const std::vector<ScenarioSType>& scenarios() {
  static const std::vector<ScenarioSType> all = [] {
    Result made;
    addSessions(made);
    addImmediates(made);
    addObjects(made);
    addValues(made);
    addExecution(made);
    addTransfers(made);
    addSets(made);
    return made;
  }();
  return all;
}

}  // namespace harness
