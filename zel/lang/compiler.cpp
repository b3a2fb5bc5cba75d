#include "compiler.h"

#include <algorithm>
#include <unordered_map>

#include "code.h"
#include "errors/failure.h"
#include "objmem/classes.h"
#include "objmem/hashed.h"
#include "objmem/names.h"
#include "objmem/values.h"
#include "parser.h"
#include "scopes.h"
#include "session/changes.h"

namespace zel {

namespace {

constexpr struct {
  const char* selector;
  ArithmeticKind kind;
} arithmeticSelectors[] = {
    {"+", ArithmeticKind::add},     {"-", ArithmeticKind::subtract},
    {"<", ArithmeticKind::less},    {">", ArithmeticKind::greater},
    {"<=", ArithmeticKind::atMost}, {">=", ArithmeticKind::atLeast},
    {"=", ArithmeticKind::equal},
};

class Emitter {
 public:
  Emitter(Tree& tree, Code& code, const std::vector<std::string>& instVars)
      : tree_(tree), code_(code), instVars_(instVars) {}

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
  [[noreturn]] static void tooLarge(const char* what) {
    throw Failure(ErrCompile, std::string("the text is too large: ") + what);
  }

  std::size_t emit(OpCode code, std::size_t a = 0, std::size_t b = 0) {
    if (code_.ops.size() >= mostOps) tooLarge("split it into several");
    if (a > 0xFFFF || b > 0xFF) tooLarge("too many variables, elements or arguments");
    code_.ops.push_back({code, static_cast<std::uint8_t>(b), static_cast<std::uint16_t>(a)});
    return code_.ops.size() - 1;
  }

  void land(std::size_t jump) { code_.ops[jump].a = static_cast<std::uint16_t>(code_.ops.size()); }

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
    function_ = block.scope;
    code_.blocks[number] = {static_cast<std::uint32_t>(code_.ops.size()), function_->argumentCount,
                            function_->frameTemporaries};
    if (function_->environmentSize > 0) {
      emit(OpCode::makeEnvironment, function_->environmentSize);
      for (std::size_t i = 0; i < function_->argumentCount; ++i) {
        if (!function_->variables[i]->captured) continue;
        emit(OpCode::pushFrame, i);
        emit(OpCode::storeOuter, function_->variables[i]->place);
        emit(OpCode::pop);
      }
    }
    const bool isMethod = number == 0 && !tree_.selector.empty();
    if (isMethod) {
      for (Node* statement : block.parts) {
        emitValue(*statement);
        emit(OpCode::pop);
      }
      emit(OpCode::pushSelf);
    } else {
      emitStatements(block);
    }
    emit(OpCode::answer);
  }

  // Leaves the value of the last statement, nil if there is none.
  void emitStatements(const Node& block) {
    if (block.parts.empty()) return pushLiteral(NilOop);
    for (std::size_t i = 0; i < block.parts.size(); ++i) {
      if (i > 0) emit(OpCode::pop);
      emitValue(*block.parts[i]);
    }
  }

  void emitInlined(const Node& block) {
    for (std::size_t i = block.parameters.size(); i < block.inlineVariables.size(); ++i) {
      pushLiteral(NilOop);
      store(*block.inlineVariables[i]);
      emit(OpCode::pop);
    }
    emitStatements(block);
  }

  std::size_t hopsTo(const Variable& variable) const {
    std::size_t hops = 0;
    for (const FunctionScope* at = function_; at != variable.scope; at = at->outer) {
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
      emit(OpCode::pushGlobal, literalIndex(symbolOop(node.name)));
    }
  }

  void emitAssign(const Node& node) {
    emitValue(*node.value);
    if (node.variable != nullptr) {
      store(*node.variable);
    } else if (const std::size_t index = instVarIndex(node.name); index < instVars_.size()) {
      emit(OpCode::storeInstance, index);
    } else {
      emit(OpCode::storeGlobal, literalIndex(symbolOop(node.name)));
    }
  }

  void emitValue(Node& node) {
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
        emit(OpCode::makeArray, node.parts.size());
        return;
      case NodeKind::answer:
        emitValue(*node.value);
        emit(function_ == tree_.body->scope ? OpCode::answer : OpCode::answerHome);
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
    for (auto node = chain.rbegin(); node != chain.rend(); ++node) {
      const Control control = controlOf(**node);
      if (control != Control::none) {
        emitControl(control, **node);
      } else {
        emitMessage(**node, toSuper);
      }
      toSuper = false;
    }
  }

  // The receiver is on the stack.
  void emitMessage(const Node& message, bool toSuper) {
    for (Node* part : message.parts) emitValue(*part);
    const std::size_t selector = literalIndex(symbolOop(message.name));
    for (const auto& arithmetic : arithmeticSelectors) {
      if (toSuper || message.name != arithmetic.selector) continue;
      emit(OpCode::arithmetic, selector, static_cast<std::size_t>(arithmetic.kind));
      return;
    }
    emit(toSuper ? OpCode::sendSuper : OpCode::send, selector, message.parts.size());
  }

  void emitCascade(Node& node) {
    emitValue(*node.receiver);
    const bool toSuper =
        node.receiver->kind == NodeKind::variable && node.receiver->name == "super";
    for (std::size_t i = 0; i < node.parts.size(); ++i) {
      const bool last = i + 1 == node.parts.size();
      if (!last) emit(OpCode::duplicate);
      emitMessage(*node.parts[i], toSuper);
      if (!last) emit(OpCode::pop);
    }
  }

  // A condition is on the stack. `otherwise` may be null: the value is then `missing`.
  void emitChoice(OpCode skip, const Node* taken, const Node* otherwise, OopType missing) {
    const std::size_t toOther = emit(skip);
    emitInlined(*taken);
    const std::size_t toEnd = emit(OpCode::jump);
    land(toOther);
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
      emit(OpCode::pop);
      emitInlined(*nilBlock);
    }
    const std::size_t toEnd = emit(OpCode::jump);
    land(toOther);
    if (otherBlock != nullptr) {
      if (!otherBlock->parameters.empty()) store(*otherBlock->inlineVariables[0]);
      emit(OpCode::pop);
      emitInlined(*otherBlock);
    }
    land(toEnd);
  }

  void emitWhile(const Node& condition, OpCode leave, const Node* body) {
    const std::size_t top = code_.ops.size();
    emitInlined(condition);
    const std::size_t toEnd = emit(leave);
    if (body != nullptr) {
      emitInlined(*body);
      emit(OpCode::pop);
    }
    emit(OpCode::jumpBack, top);
    land(toEnd);
    pushLiteral(NilOop);
  }

  void emitArithmetic(const char* selector, ArithmeticKind kind) {
    emit(OpCode::arithmetic, literalIndex(symbolOop(selector)), static_cast<std::size_t>(kind));
  }

  // The start is on the stack and stays there as the value of the whole.
  void emitCount(const Variable& counter, const Variable& limit, std::int32_t step,
                 const Node& body) {
    const std::size_t top = code_.ops.size();
    load(counter);
    load(limit);
    if (step > 0) {
      emitArithmetic("<=", ArithmeticKind::atMost);
    } else {
      emitArithmetic(">=", ArithmeticKind::atLeast);
    }
    const std::size_t toEnd = emit(OpCode::jumpIfFalse);
    emitInlined(body);
    emit(OpCode::pop);
    load(counter);
    pushLiteral(smallIntOop(step));
    emitArithmetic("+", ArithmeticKind::add);
    store(counter);
    emit(OpCode::pop);
    emit(OpCode::jumpBack, top);
    land(toEnd);
  }

  void emitToDo(const Node& send, std::int32_t step, const Node& body) {
    const Variable& counter = *body.inlineVariables[0];
    const Variable& limit = *send.inlineVariables[0];
    store(counter);
    emitValue(*send.parts[0]);
    store(limit);
    emit(OpCode::pop);
    emitCount(counter, limit, step, body);
  }

  void emitTimesRepeat(const Node& send) {
    const Variable& limit = *send.inlineVariables[0];
    const Variable& counter = *send.inlineVariables[1];
    store(limit);
    pushLiteral(smallIntOop(1));
    store(counter);
    emit(OpCode::pop);
    emitCount(counter, limit, 1, *send.parts[0]);
  }

  void emitRepeat(const Node& body) {
    const std::size_t top = code_.ops.size();
    emitInlined(body);
    emit(OpCode::pop);
    emit(OpCode::jumpBack, top);
    pushLiteral(NilOop);  // never reached
  }

  void emitControl(Control control, Node& send) {
    constexpr OpCode ifFalse = OpCode::jumpIfFalse;
    constexpr OpCode ifTrue = OpCode::jumpIfTrue;
    const std::vector<Node*>& parts = send.parts;
    // One line a form.
    // clang-format off
    switch (control) {
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
      case Control::whileTrue: return emitWhile(*send.receiver, ifFalse, nullptr);
      case Control::whileFalse: return emitWhile(*send.receiver, ifTrue, nullptr);
      case Control::whileTrueDo: return emitWhile(*send.receiver, ifFalse, parts[0]);
      case Control::whileFalseDo: return emitWhile(*send.receiver, ifTrue, parts[0]);
      case Control::toDo: return emitToDo(send, 1, *parts[1]);
      case Control::toByDo: return emitToDo(send, smallIntValue(parts[1]->literal), *parts[2]);
      case Control::timesRepeat: return emitTimesRepeat(send);
      case Control::repeat: return emitRepeat(*send.receiver);
      case Control::none: return;
    }
    // clang-format on
  }

  Tree& tree_;
  Code& code_;
  const std::vector<std::string>& instVars_;
  FunctionScope* function_ = nullptr;
  std::unordered_map<OopType, std::size_t> literals_;
  std::vector<std::pair<Node*, std::size_t>> pending_;
};

std::shared_ptr<const Code> generate(Tree& tree, OopType owner,
                                     const std::vector<std::string>& instVars) {
  resolveNames(tree);
  auto code = std::make_shared<Code>();
  code->owner = owner;
  Emitter(tree, *code, instVars).run();
  return code;
}

OopType methodObject(OopType selector, OopType owner, OopType source) {
  const OopType oop = allocate(MethodClass, Impl::pointers, 3, 0, false);
  findObject(oop)->slots = {selector, owner, source};
  findObject(oop)->invariant = true;
  return oop;
}

void install(OopType owner, OopType selector, bool classSide, OopType method) {
  const OopType dictionary =
      findObject(owner)->slots[(classSide ? ClassClassMethods : ClassMethods) - 1];
  {
    const ChangeOfInvariant change(dictionary);
    dictionaryPut(dictionary, selector, method);
  }
  ++lookupEpoch;
}

std::vector<std::string> instVarNamesOf(OopType owner) {
  std::vector<std::string> names;
  const OopType array = findObject(owner)->slots[ClassInstVarNames - 1];
  for (const OopType name : findObject(array)->slots) names.emplace_back(bytesOf(name));
  return names;
}

}  // namespace

OopType compileText(std::string_view source) {
  Tree tree;
  parseText(source, tree);
  const std::shared_ptr<const Code> code = generate(tree, 0, {});
  const OopType method = methodObject(NilOop, NilOop, NilOop);
  findObject(method)->more().code = code;
  return method;
}

OopType compileMethod(OopType owner, std::string_view source, bool classSide) {
  if (!isClass(owner)) throw Failure(ErrBadArgumentKind, "a class is expected", {owner});
  Tree tree;
  parseMethod(source, tree);
  const std::vector<std::string> none;
  const std::shared_ptr<const Code> code =
      generate(tree, owner, classSide ? none : instVarNamesOf(owner));
  const OopType selector = symbolOop(tree.selector);
  const OopType method = methodObject(selector, owner, stringOop(source));
  findObject(method)->more().code = code;
  install(owner, selector, classSide, method);
  return selector;
}

void installPrimitive(OopType owner, std::string_view selector, bool classSide,
                      PrimitiveFType primitive) {
  const OopType symbol = symbolOop(selector);
  const OopType method = methodObject(symbol, owner, NilOop);
  findObject(method)->more().primitive = primitive;
  install(owner, symbol, classSide, method);
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

void markCode(const Code& code, Marker mark) {
  mark(code.owner);
  for (const OopType literal : code.literals) mark(literal);
}

}  // namespace zel
