#include "compiler.h"

#include <algorithm>
#include <memory>
#include <unordered_map>

#include "objmem/changes.h"
#include "objmem/classes.h"
#include "objmem/clients.h"
#include "objmem/hashed.h"
#include "objmem/names.h"
#include "objmem/values.h"
#include "parser.h"
#include "scopes.h"

namespace zel {

namespace {

constexpr struct {
  const char* selector;
  OpCode code;
} arithmeticSelectors[] = {
    {"+", OpCode::add},     {"-", OpCode::subtract}, {"*", OpCode::multiply}, {"<", OpCode::less},
    {">", OpCode::greater}, {"<=", OpCode::atMost},  {">=", OpCode::atLeast}, {"=", OpCode::equal},
};

// How many values more are on the stack after an operation; sends and arrays take further ones.
constexpr int growthOf(OpCode code) {
  switch (code) {
    case OpCode::pushLiteral:
    case OpCode::pushSelf:
    case OpCode::pushFrame:
    case OpCode::pushOuter:
    case OpCode::pushInstance:
    case OpCode::pushGlobal:
    case OpCode::duplicate:
    case OpCode::makeBlock:
    case OpCode::makeArray:
      return 1;
    case OpCode::popFrame:
    case OpCode::pop:
    case OpCode::add:
    case OpCode::advance:
    case OpCode::subtract:
    case OpCode::multiply:
    case OpCode::less:
    case OpCode::greater:
    case OpCode::atMost:
    case OpCode::atLeast:
    case OpCode::equal:
    case OpCode::jumpIfFalse:
    case OpCode::jumpIfTrue:
    case OpCode::answer:
    case OpCode::answerHome:
      return -1;
    default:
      return 0;
  }
}

class Emitter {
 public:
  Emitter(Memory& memory, Tree& tree, Code& code, const std::vector<std::string>& instVars)
      : memory_(memory), tree_(tree), code_(code), instVars_(instVars) {}

  void run() {
    code_.blocks.resize(1);
    emitFunction(*tree_.body, 0);
    while (!pending_.empty()) {
      const auto [block, number] = pending_.back();
      pending_.pop_back();
      emitFunction(*block, number);
    }
  }

 private:
  [[noreturn]] void tooLarge(const char* what) const {
    throw Failure(ErrCompile, std::string("the text is too large: ") + what).in(position_);
  }

  std::size_t emit(OpCode code, std::size_t a = 0, std::size_t b = 0) {
    memory_.meter.charge(1);
    if (code_.ops.size() >= mostOps) tooLarge("split it into several");
    if (a > 0xFFFF || b > 0xFF) tooLarge("too many variables, elements or arguments");
    code_.ops.push_back({code, static_cast<std::uint8_t>(b), static_cast<std::uint16_t>(a)});
    code_.positions.note(code_.ops.size() - 1, position_);
    grow(growthOf(code));
    return code_.ops.size() - 1;
  }

  void grow(int values) {
    depth_ += values;
    deepest_ = std::max(deepest_, depth_);
  }

  void emitPop() {
    Op* last = landed_ == code_.ops.size() ? nullptr : &code_.ops.back();
    if (last == nullptr || last->code != OpCode::storeFrame) {
      emit(OpCode::pop);
      return;
    }
    last->code = OpCode::popFrame;
    grow(-1);
  }

  void land(std::size_t jump) {
    landed_ = code_.ops.size();
    code_.ops[jump].a = static_cast<std::uint16_t>(landed_);
  }

  std::size_t here() { return landed_ = code_.ops.size(); }

  void emitSend(OpCode code, const std::string& selector, std::size_t arguments,
                bool toSuper = false, std::size_t temporaries = noTemporary) {
    if (arguments > mostArguments) tooLarge("too many variables, elements or arguments");
    code_.sites.push_back({symbolOop(memory_, selector), static_cast<std::uint32_t>(arguments),
                           toSuper && code_.owner != 0, 0, 0, nullptr});
    emit(code, code_.sites.size() - 1, temporaries);
    if (code == OpCode::send) grow(-static_cast<int>(arguments));
  }

  std::size_t literalIndex(OopType oop) {
    const auto known = literals_.find(oop);
    if (known != literals_.end()) return known->second;
    if (code_.literals.size() >= mostLiterals) tooLarge("too many literals");
    code_.literals.push_back(oop);
    literals_.emplace(oop, code_.literals.size() - 1);
    return code_.literals.size() - 1;
  }

  void pushLiteral(OopType oop) { emit(OpCode::pushLiteral, literalIndex(oop)); }

  void emitFunction(Node& block, std::size_t number) {
    scope_ = block.scope;
    position_ = block.position;
    depth_ = deepest_ = 0;
    const std::size_t entry = here();
    emitEnvironment();
    const bool isMethod = number == 0 && !tree_.selector.empty();
    if (isMethod) {
      for (Node* statement : block.parts) {
        emitValue(*statement);
        emitPop();
      }
      emit(OpCode::answerSelf);
    } else {
      emitStatements(block);
      emit(OpCode::answer);
    }
    code_.blocks[number] = {
        static_cast<std::uint32_t>(entry), scope_->argumentCount, scope_->frameTemporaries,
        scope_->frameTemporaries + static_cast<std::uint32_t>(deepest_) + spareValues};
  }

  // For the captured variables of the scope; those that are arguments move there.
  void emitEnvironment() {
    if (scope_->environmentSize == 0) return;
    emit(OpCode::makeEnvironment, scope_->environmentSize);
    for (std::size_t i = 0; i < scope_->argumentCount; ++i) {
      if (!scope_->variables[i]->captured) continue;
      emit(OpCode::pushFrame, i);
      emit(OpCode::storeOuter, scope_->variables[i]->place);
      emitPop();
    }
  }

  // Leaves the value of the last statement, nil if there is none.
  void emitStatements(const Node& block) {
    if (block.parts.empty()) return pushLiteral(NilOop);
    for (std::size_t i = 0; i < block.parts.size(); ++i) {
      if (i > 0) emitPop();
      emitValue(*block.parts[i]);
    }
  }

  void emitInlined(const Node& block) {
    for (std::size_t i = block.parameters.size(); i < block.inlineVariables.size(); ++i) {
      pushLiteral(NilOop);
      store(*block.inlineVariables[i]);
      emitPop();
    }
    emitStatements(block);
  }

  // One turn of a loop: its captured variables are new. `counter` is what its parameter becomes.
  void emitTurn(const Node& body, const Variable* counter = nullptr) {
    scope_ = body.scope;
    const bool hasEnvironment = scope_->environmentSize > 0;
    if (hasEnvironment) emit(OpCode::makeEnvironment, scope_->environmentSize);
    if (counter != nullptr) {
      load(*counter);
      store(*body.inlineVariables[0]);
      emitPop();
    }
    emitInlined(body);
    if (hasEnvironment) emit(OpCode::leaveEnvironment);
    scope_ = scope_->outer;
  }

  std::size_t hopsTo(const Variable& variable) const {
    std::size_t hops = 0;
    for (const Scope* at = scope_; at != variable.scope; at = at->outer) {
      if (at->environmentSize > 0) ++hops;
    }
    return hops;
  }

  void access(const Variable& variable, OpCode inFrame, OpCode outside) {
    if (!variable.captured) {
      emit(inFrame, variable.place);
    } else {
      emit(outside, variable.place, hopsTo(variable));
    }
  }
  void load(const Variable& variable) { access(variable, OpCode::pushFrame, OpCode::pushOuter); }
  void store(const Variable& variable) { access(variable, OpCode::storeFrame, OpCode::storeOuter); }

  std::size_t instVarIndex(const std::string& name) const {
    return static_cast<std::size_t>(std::find(instVars_.begin(), instVars_.end(), name) -
                                    instVars_.begin());
  }

  void emitName(const Node& node) {
    if (node.variable != nullptr) return load(*node.variable);
    if (node.name == "self" || node.name == "super") {
      emit(OpCode::pushSelf);
    } else if (node.name == "nil") {
      pushLiteral(NilOop);
    } else if (node.name == "true" || node.name == "false") {
      pushLiteral(booleanOop(node.name == "true"));
    } else if (const std::size_t index = instVarIndex(node.name); index < instVars_.size()) {
      emit(OpCode::pushInstance, index);
    } else {
      emit(OpCode::pushGlobal, literalIndex(symbolOop(memory_, node.name)));
    }
  }

  void emitAssign(const Node& node) {
    emitValue(*node.value);
    position_ = node.position;
    if (node.variable != nullptr) {
      store(*node.variable);
    } else if (const std::size_t index = instVarIndex(node.name); index < instVars_.size()) {
      emit(OpCode::storeInstance, index);
    } else {
      emit(OpCode::storeGlobal, literalIndex(symbolOop(memory_, node.name)));
    }
  }

  void emitValue(Node& node) {
    position_ = node.position;
    switch (node.kind) {
      case NodeKind::literal:
        return pushLiteral(node.literal);
      case NodeKind::variable:
        return emitName(node);
      case NodeKind::assign:
        return emitAssign(node);
      case NodeKind::send:
        return emitSends(node);
      case NodeKind::cascade:
        return emitCascade(node);
      case NodeKind::brace:
        for (Node* part : node.parts) emitValue(*part);
        position_ = node.position;
        emit(OpCode::makeArray, node.parts.size());
        grow(-static_cast<int>(node.parts.size()));
        return;
      case NodeKind::answer:
        emitValue(*node.value);
        position_ = node.position;
        emitAnswer();
        pushLiteral(NilOop);  // never reached; keeps one value for each statement
        return;
      case NodeKind::block:
        code_.blocks.emplace_back();
        pending_.emplace_back(&node, code_.blocks.size() - 1);
        emit(OpCode::makeBlock, code_.blocks.size() - 1);
        return;
    }
  }

  void emitSends(Node& send) {
    std::vector<Node*> chain;
    Node* first = &send;
    for (; first->kind == NodeKind::send; first = first->receiver) chain.push_back(first);
    if (!first->inlined) emitValue(*first);
    bool toSuper = first->kind == NodeKind::variable && first->name == "super";
    const Node* receiver = first;
    for (auto node = chain.rbegin(); node != chain.rend(); ++node) {
      if ((*node)->control != Control::none) {
        emitControl(**node);
      } else {
        emitMessage(**node, toSuper, receiver);
      }
      toSuper = false;
      receiver = *node;
    }
  }

  // The op that carries the message out where that needs none, else send.
  static OpCode arithmeticOf(const Node& node) {
    if (node.kind != NodeKind::send) return OpCode::send;
    for (const auto& arithmetic : arithmeticSelectors) {
      if (node.name == arithmetic.selector) return arithmetic.code;
    }
    return OpCode::send;
  }

  void emitAnswer() {
    const bool fromHome = scope_->function != tree_.body->scope;
    code_.hasHomeReturns = code_.hasHomeReturns || fromHome;
    emit(fromHome ? OpCode::answerHome : OpCode::answer);
  }

  // The receiver is on the stack; `receiver` is null where something else has it, too.
  void emitMessage(const Node& message, bool toSuper, const Node* receiver) {
    for (Node* part : message.parts) emitValue(*part);
    position_ = message.position;
    const OpCode code = toSuper ? OpCode::send : arithmeticOf(message);
    if (code == OpCode::send) {
      return emitSend(OpCode::send, message.name, message.parts.size(), toSuper);
    }
    const auto isTemporary = [](const Node* node) {
      return node != nullptr && arithmeticOf(*node) != OpCode::send;
    };
    emitSend(code, message.name, 1, false,
             (isTemporary(receiver) ? temporaryReceiver : noTemporary) |
                 (isTemporary(message.parts[0]) ? temporaryArgument : noTemporary));
  }

  void emitCascade(Node& node) {
    emitValue(*node.receiver);
    const bool toSuper =
        node.receiver->kind == NodeKind::variable && node.receiver->name == "super";
    for (std::size_t i = 0; i < node.parts.size(); ++i) {
      const bool last = i + 1 == node.parts.size();
      if (!last) emit(OpCode::duplicate);
      emitMessage(*node.parts[i], toSuper, nullptr);
      if (!last) emitPop();
    }
  }

  // A condition is on the stack. `otherwise` may be null: the value is then `missing`.
  void emitChoice(OpCode skip, const Node* taken, const Node* otherwise, OopType missing) {
    const std::size_t toOther = emit(skip);
    const int depth = depth_;
    emitInlined(*taken);
    const std::size_t toEnd = emit(OpCode::jump);
    land(toOther);
    depth_ = depth;
    if (otherwise != nullptr) {
      emitInlined(*otherwise);
    } else {
      pushLiteral(missing);
    }
    land(toEnd);
  }

  // The receiver is on the stack and stays there as the value where a block is null.
  void emitIfNil(const Node* nilBlock, const Node* otherBlock) {
    const std::size_t toOther = emit(OpCode::jumpIfNotNil);
    if (nilBlock != nullptr) {
      emitPop();
      emitInlined(*nilBlock);
    }
    const std::size_t toEnd = emit(OpCode::jump);
    land(toOther);
    if (otherBlock != nullptr) {
      if (!otherBlock->parameters.empty()) store(*otherBlock->inlineVariables[0]);
      emitPop();
      emitInlined(*otherBlock);
    }
    land(toEnd);
  }

  void emitWhile(const Node& send, OpCode leave, const Node* body) {
    const std::size_t top = here();
    emitTurn(*send.receiver);
    position_ = send.position;
    const std::size_t toEnd = emit(leave);
    if (body != nullptr) {
      emitTurn(*body);
      emitPop();
    }
    position_ = send.position;
    emit(OpCode::jumpBack, top);
    land(toEnd);
    pushLiteral(NilOop);
  }

  // The start is on the stack and stays there as the value of the whole, below the number of turns
  // where it may be a float. Blocks that keep the body's parameter must not see it change: it is
  // then a copy of the counter.
  void emitCount(const Node& send, std::int32_t step, const Node& body) {
    const Variable* parameter = body.parameters.empty() ? nullptr : body.inlineVariables[0];
    const bool copied = parameter != nullptr && parameter->captured;
    const Variable& limit = *send.inlineVariables[0];
    const Variable& counter =
        parameter == nullptr || copied ? *send.inlineVariables[1] : *parameter;
    store(counter);
    if (parameter != nullptr) {
      emitValue(*send.parts[0]);
      store(limit);
      emitPop();
      position_ = send.position;
    }
    const Node& start = *send.receiver;
    const bool startsWhole = start.kind == NodeKind::literal && isSmallInt(start.literal);
    const bool mayRound = parameter != nullptr && !startsWhole;
    if (mayRound) pushLiteral(smallIntOop(0));
    const std::size_t top = here();
    load(counter);
    load(limit);
    emitSend(step > 0 ? OpCode::atMost : OpCode::atLeast, step > 0 ? "<=" : ">=", 1);
    const std::size_t toEnd = emit(OpCode::jumpIfFalse);
    emitTurn(body, copied ? &counter : nullptr);
    emitPop();
    position_ = send.position;
    emitStep(counter, step, mayRound ? OpCode::advance : OpCode::add);
    emit(OpCode::jumpBack, top);
    land(toEnd);
    if (mayRound) emitPop();
  }

  void emitStep(const Variable& counter, std::int32_t step, OpCode adding) {
    if (!counter.captured && static_cast<std::int8_t>(step) == step) {
      emit(OpCode::count, counter.place, static_cast<std::uint8_t>(step));
    }
    load(counter);
    pushLiteral(smallIntOop(step));
    emitSend(adding, "+", 1);
    store(counter);
    emitPop();
  }

  // The number of turns is on the stack and stays there as the value of the whole.
  void emitTimesRepeat(const Node& send) {
    store(*send.inlineVariables[0]);
    pushLiteral(smallIntOop(1));
    emitCount(send, 1, *send.parts[0]);
    emitPop();
  }

  void emitRepeat(const Node& send) {
    const std::size_t top = here();
    emitTurn(*send.receiver);
    emitPop();
    position_ = send.position;
    emit(OpCode::jumpBack, top);
    pushLiteral(NilOop);  // never reached
  }

  void emitControl(Node& send) {
    constexpr OpCode ifFalse = OpCode::jumpIfFalse;
    constexpr OpCode ifTrue = OpCode::jumpIfTrue;
    const std::vector<Node*>& parts = send.parts;
    position_ = send.position;
    // One line a form.
    // clang-format off
    switch (send.control) {
      case Control::ifTrue: return emitChoice(ifFalse, parts[0], nullptr, NilOop);
      case Control::ifFalse: return emitChoice(ifTrue, parts[0], nullptr, NilOop);
      case Control::ifTrueIfFalse: return emitChoice(ifFalse, parts[0], parts[1], NilOop);
      case Control::ifFalseIfTrue: return emitChoice(ifTrue, parts[0], parts[1], NilOop);
      case Control::andBlock: return emitChoice(ifFalse, parts[0], nullptr, FalseOop);
      case Control::orBlock: return emitChoice(ifTrue, parts[0], nullptr, TrueOop);
      case Control::ifNil: return emitIfNil(parts[0], nullptr);
      case Control::ifNotNil: return emitIfNil(nullptr, parts[0]);
      case Control::ifNilIfNotNil: return emitIfNil(parts[0], parts[1]);
      case Control::ifNotNilIfNil: return emitIfNil(parts[1], parts[0]);
      case Control::whileTrue: return emitWhile(send, ifFalse, nullptr);
      case Control::whileFalse: return emitWhile(send, ifTrue, nullptr);
      case Control::whileTrueDo: return emitWhile(send, ifFalse, parts[0]);
      case Control::whileFalseDo: return emitWhile(send, ifTrue, parts[0]);
      case Control::toDo: return emitCount(send, 1, *parts[1]);
      case Control::toByDo: return emitCount(send, smallIntValue(parts[1]->literal), *parts[2]);
      case Control::timesRepeat: return emitTimesRepeat(send);
      case Control::repeat: return emitRepeat(send);
      case Control::none: return;
    }
    // clang-format on
  }

  Memory& memory_;
  Tree& tree_;
  Code& code_;
  const std::vector<std::string>& instVars_;
  Scope* scope_ = nullptr;
  Position position_;  // of what is emitted
  int depth_ = 0;      // values on the stack at the next op, and the most in the function
  int deepest_ = 0;
  std::size_t landed_ = 0;  // where a jump last led to
  std::unordered_map<OopType, std::size_t> literals_;
  std::vector<std::pair<Node*, std::size_t>> pending_;
};

std::unique_ptr<Code> generate(Memory& memory, Tree& tree, OopType owner, bool classSide,
                               const std::vector<std::string>& instVars) {
  resolveNames(tree, instVars, memory.meter);
  auto code = std::make_unique<Code>();
  code->owner = owner;
  code->classSide = classSide;
  Emitter(memory, tree, *code, instVars).run();
  return code;
}

void giveRoutine(Memory& memory, OopType method, Routine routine, bool classSide) {
  if (routine.code) {
    routine.code->method = method;
    memory.reserve(routine.code->bytes());
  }
  routine.classSide = classSide;
  memory.extraOf(method).routine = std::make_unique<Routine>(std::move(routine));
  memory.recount(method);
}

OopType methodObject(Memory& memory, OopType selector, OopType owner, OopType source,
                     Routine routine) {
  const OopType oop = memory.allocate(MethodClass, Impl::pointers, 3, 0, false);
  Object& object = memory.at(oop);
  object.slots[MethodSelector] = selector;
  object.slots[MethodOwner] = owner;
  object.slots[MethodSource] = source;
  object.invariant = true;
  giveRoutine(memory, oop, std::move(routine), false);
  return oop;
}

void install(Memory& memory, OopType owner, OopType selector, bool classSide, OopType method) {
  const OopType dictionary =
      memory.at(owner).slots[(classSide ? ClassClassMethods : ClassMethods) - 1];
  memory.at(method).extra->routine->classSide = classSide;
  const ChangeOfInvariant change(memory, dictionary);
  prepareKeyWrite(memory, dictionary, hashOfSymbol(memory, selector));
  dictionaryPut(memory, dictionary, selector, method);
  memory.forgetLookups();
  const std::string_view name = bytesOf(memory, selector);
  if (name == "=" || name == "hash") ++memory.equalityEpoch;
}

std::vector<std::string> instVarNamesOf(const Memory& memory, OopType owner) {
  std::vector<std::string> names;
  const Object& array = memory.at(memory.at(owner).slots[ClassInstVarNames - 1]);
  for (std::uint32_t i = 0; i < array.size; ++i) {
    names.emplace_back(bytesOf(memory, array.slots[i]));
  }
  return names;
}

}  // namespace

OopType compileText(Memory& memory, std::string_view source) {
  Tree tree(memory);
  parseText(memory, source, tree);
  Routine routine;
  routine.code = generate(memory, tree, 0, false, {});
  const bool hasBlocks = routine.code->blocks.size() > 1;  // which may outlive it
  const OopType text = hasBlocks ? stringOop(memory, source) : NilOop;
  return methodObject(memory, NilOop, NilOop, text, std::move(routine));
}

OopType compileMessage(Memory& memory, OopType receiver, std::string_view selector,
                       std::span<const OopType> arguments) {
  const auto count = static_cast<std::uint32_t>(arguments.size());
  Routine routine;
  routine.code = std::make_unique<Code>();
  Code& code = *routine.code;
  code.literals = {receiver};
  code.literals.insert(code.literals.end(), arguments.begin(), arguments.end());
  for (std::size_t i = 0; i < code.literals.size(); ++i) {
    code.ops.push_back({OpCode::pushLiteral, 0, static_cast<std::uint16_t>(i)});
  }
  code.sites.push_back({symbolOop(memory, selector), count, false, 0, 0, nullptr});
  code.ops.push_back({OpCode::send, 0, 0});
  code.ops.push_back({OpCode::answer, 0, 0});
  code.blocks = {{0, 0, 0, count + 1 + spareValues}};
  return methodObject(memory, NilOop, NilOop, NilOop, std::move(routine));
}

OopType compileMethod(Memory& memory, OopType owner, std::string_view source, bool classSide,
                      bool kernel) {
  if (!isClass(memory, owner)) wrongKind(memory, "a class", owner);
  Tree tree(memory);
  const std::vector<std::string> none;
  Routine routine;
  try {
    parseMethod(memory, source, tree);
    routine.code =
        generate(memory, tree, owner, classSide, classSide ? none : instVarNamesOf(memory, owner));
  } catch (Failure& failure) {
    if (failure.number == ErrCompile) {
      failure.method = methodName(memory, owner, classSide, tree.selector);
    }
    throw;
  }
  routine.code->kernel = kernel;
  const OopType selector = symbolOop(memory, tree.selector);
  const OopType text = stringOop(memory, source);
  install(memory, owner, selector, classSide,
          methodObject(memory, selector, owner, text, std::move(routine)));
  return selector;
}

void installRoutine(Memory& memory, OopType owner, std::string_view selector, bool classSide,
                    Routine routine) {
  const OopType symbol = symbolOop(memory, selector);
  install(memory, owner, symbol, classSide,
          methodObject(memory, symbol, owner, NilOop, std::move(routine)));
}

void compileAgain(Memory& memory, OopType method, bool classSide) {
  const OopType* slots = memory.at(method).slots;
  const OopType owner = slots[MethodOwner];
  const std::string source(bytesOf(memory, slots[MethodSource]));
  Tree tree(memory);
  Routine routine;
  if (owner == NilOop) {
    parseText(memory, source, tree);
    routine.code = generate(memory, tree, 0, false, {});
  } else {
    parseMethod(memory, source, tree);
    const std::vector<std::string> none;
    routine.code =
        generate(memory, tree, owner, classSide, classSide ? none : instVarNamesOf(memory, owner));
  }
  giveRoutine(memory, method, std::move(routine), classSide);
}

int argumentCountOf(std::string_view selector) {
  if (isBinarySelector(selector)) return 1;
  if (selector.empty() || !isLetter(selector[0])) return -1;
  int colons = 0;
  bool afterColon = false;
  for (const char c : selector) {
    if (c == ':') {
      if (afterColon) return -1;
      ++colons;
    } else if (!isWordCharacter(c)) {
      return -1;
    }
    afterColon = c == ':';
  }
  return colons == 0 || afterColon ? colons : -1;
}

}  // namespace zel
