#include "scopes.h"

#include <algorithm>
#include <string_view>

#include "errors/failure.h"

namespace zel {

namespace {

struct ControlForm {
  const char* selector;
  Control control;
  int receiverBlock;  // 1: the receiver is a literal block
  int blocks[2];      // parameters allowed in each argument that must be a block, -1: any value
};

constexpr ControlForm controlForms[] = {
    {"ifTrue:", Control::ifTrue, 0, {0, -1}},
    {"ifFalse:", Control::ifFalse, 0, {0, -1}},
    {"ifTrue:ifFalse:", Control::ifTrueIfFalse, 0, {0, 0}},
    {"ifFalse:ifTrue:", Control::ifFalseIfTrue, 0, {0, 0}},
    {"ifNil:", Control::ifNil, 0, {0, -1}},
    {"ifNotNil:", Control::ifNotNil, 0, {1, -1}},
    {"ifNil:ifNotNil:", Control::ifNilIfNotNil, 0, {0, 1}},
    {"ifNotNil:ifNil:", Control::ifNotNilIfNil, 0, {1, 0}},
    {"and:", Control::andBlock, 0, {0, -1}},
    {"or:", Control::orBlock, 0, {0, -1}},
    {"whileTrue", Control::whileTrue, 1, {-1, -1}},
    {"whileFalse", Control::whileFalse, 1, {-1, -1}},
    {"whileTrue:", Control::whileTrueDo, 1, {0, -1}},
    {"whileFalse:", Control::whileFalseDo, 1, {0, -1}},
    {"to:do:", Control::toDo, 0, {-1, 1}},
    {"timesRepeat:", Control::timesRepeat, 0, {0, -1}},
    {"repeat", Control::repeat, 1, {-1, -1}},
};

bool isBlockOf(const Node* node, std::size_t parameters) {
  return node != nullptr && node->kind == NodeKind::block && node->parameters.size() == parameters;
}

bool isBlock(const Node* node) {
  return node != nullptr && node->kind == NodeKind::block;
}

// ifNotNil: takes its block with or without a parameter.
bool fitsBlock(const Node* node, int parameters) {
  if (parameters == 1 && isBlockOf(node, 0)) return true;
  return isBlockOf(node, static_cast<std::size_t>(parameters));
}

bool isStepLiteral(const Node* node) {
  return node->kind == NodeKind::literal && (node->literal & 3) == 3 && node->literal != 3;
}

class Resolver {
 public:
  explicit Resolver(Tree& tree) : tree_(tree) {}

  void run() {
    enterFunction(*tree_.body);
    for (FunctionScope& scope : tree_.scopes) place(scope);
  }

 private:
  [[noreturn]] static void fail(const std::string& message) { throw Failure(ErrCompile, message); }

  Variable* declare(const std::string& name, bool isArgument) {
    tree_.variables.push_back({name, function_, isArgument});
    function_->variables.push_back(&tree_.variables.back());
    if (!name.empty()) visible_.push_back(&tree_.variables.back());
    return &tree_.variables.back();
  }

  void enterFunction(Node& block) {
    tree_.scopes.emplace_back();
    FunctionScope* scope = &tree_.scopes.back();
    scope->outer = function_;
    scope->argumentCount = static_cast<std::uint32_t>(block.parameters.size());
    block.scope = scope;
    function_ = scope;
    const std::size_t before = visible_.size();
    for (const std::string& name : block.parameters) declare(name, true);
    for (const std::string& name : block.temporaries) declare(name, false);
    for (Node* statement : block.parts) visit(statement);
    visible_.resize(before);
    function_ = scope->outer;
  }

  void enterInlined(Node& block) {
    block.inlined = true;
    const std::size_t before = visible_.size();
    for (const std::string& name : block.parameters) {
      block.inlineVariables.push_back(declare(name, true));
    }
    for (const std::string& name : block.temporaries) {
      block.inlineVariables.push_back(declare(name, false));
    }
    for (Node* statement : block.parts) visit(statement);
    visible_.resize(before);
  }

  void resolve(Node& node) {
    constexpr std::string_view reserved[] = {"self", "super", "nil", "true", "false"};
    if (std::find(std::begin(reserved), std::end(reserved), node.name) != std::end(reserved)) {
      if (node.kind == NodeKind::assign) fail(node.name + " cannot be assigned to");
      return;
    }
    const auto found = std::find_if(visible_.rbegin(), visible_.rend(),
                                    [&](const Variable* v) { return v->name == node.name; });
    if (found == visible_.rend()) return;
    node.variable = *found;
    if (node.variable->scope != function_) node.variable->captured = true;
    if (node.kind == NodeKind::assign && node.variable->isArgument) {
      fail("the argument " + node.name + " cannot be assigned to");
    }
  }

  void visitSend(Node* send) {
    // Receivers of receivers are walked in a loop: a chain of messages may be long.
    std::vector<Node*> chain;
    Node* first = send;
    for (; first != nullptr && first->kind == NodeKind::send; first = first->receiver) {
      chain.push_back(first);
    }
    if (first != nullptr) visitOperand(first, controlOf(*chain.back()) != Control::none);
    for (auto node = chain.rbegin(); node != chain.rend(); ++node) {
      const Control control = controlOf(**node);
      if (control == Control::toDo || control == Control::toByDo ||
          control == Control::timesRepeat) {
        // Hidden variables: the limit, and for timesRepeat: the counter.
        (*node)->inlineVariables = {declare("", false), declare("", false)};
      }
      for (Node* part : (*node)->parts) visitOperand(part, control != Control::none);
    }
  }

  void visitOperand(Node* node, bool inControl) {
    if (inControl && node->kind == NodeKind::block) return enterInlined(*node);
    visit(node);
  }

  void visit(Node* node) {
    switch (node->kind) {
      case NodeKind::literal:
        break;
      case NodeKind::variable:
        resolve(*node);
        break;
      case NodeKind::assign:
        resolve(*node);
        visit(node->value);
        break;
      case NodeKind::answer:
        visit(node->value);
        break;
      case NodeKind::send:
        visitSend(node);
        break;
      case NodeKind::cascade:
        if (node->receiver != nullptr) visit(node->receiver);
        for (Node* message : node->parts) {
          for (Node* part : message->parts) visit(part);
        }
        break;
      case NodeKind::brace:
        for (Node* part : node->parts) visit(part);
        break;
      case NodeKind::block:
        enterFunction(*node);
        break;
    }
  }

  // Arguments come first in the frame, captured ones too: their values are copied out on entry.
  static void place(FunctionScope& scope) {
    std::uint32_t inFrame = scope.argumentCount;
    for (std::size_t i = 0; i < scope.variables.size(); ++i) {
      Variable& variable = *scope.variables[i];
      if (variable.captured) {
        variable.place = scope.environmentSize++;
      } else if (i < scope.argumentCount) {
        variable.place = static_cast<std::uint32_t>(i);
      } else {
        variable.place = inFrame++;
      }
    }
    scope.frameTemporaries = inFrame - scope.argumentCount;
  }

  Tree& tree_;
  FunctionScope* function_ = nullptr;
  std::vector<Variable*> visible_;
};

}  // namespace

Control controlOf(const Node& send) {
  if (send.kind != NodeKind::send) return Control::none;
  if (send.name == "to:by:do:") {
    const bool fits = send.receiver != nullptr && isStepLiteral(send.parts[1]) &&
                      isBlockOf(send.parts[2], 1) && !isBlock(send.receiver) &&
                      !isBlock(send.parts[0]);
    return fits ? Control::toByDo : Control::none;
  }
  for (const ControlForm& form : controlForms) {
    if (send.name != form.selector) continue;
    if (send.receiver == nullptr) return Control::none;
    const bool receiverFits =
        form.receiverBlock != 0 ? isBlockOf(send.receiver, 0) : !isBlock(send.receiver);
    if (!receiverFits) return Control::none;
    for (std::size_t i = 0; i < send.parts.size(); ++i) {
      const int parameters = form.blocks[i];
      const bool fits =
          parameters < 0 ? !isBlock(send.parts[i]) : fitsBlock(send.parts[i], parameters);
      if (!fits) return Control::none;
    }
    return form.control;
  }
  return Control::none;
}

void resolveNames(Tree& tree) {
  Resolver(tree).run();
}

}  // namespace zel
