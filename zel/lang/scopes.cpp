#include "scopes.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>

#include "errors/failure.h"

namespace zel {

namespace {

constexpr int upToOne = 2;

struct ControlForm {
  const char* selector;
  Control control;
  int receiverBlock;  // 1: the receiver is a literal block
  int blocks[2];      // parameters of each argument that must be a block; -1: any value
};

constexpr ControlForm controlForms[] = {
    {"ifTrue:", Control::ifTrue, 0, {0, -1}},
    {"ifFalse:", Control::ifFalse, 0, {0, -1}},
    {"ifTrue:ifFalse:", Control::ifTrueIfFalse, 0, {0, 0}},
    {"ifFalse:ifTrue:", Control::ifFalseIfTrue, 0, {0, 0}},
    {"ifNil:", Control::ifNil, 0, {0, -1}},
    {"ifNotNil:", Control::ifNotNil, 0, {upToOne, -1}},
    {"ifNil:ifNotNil:", Control::ifNilIfNotNil, 0, {0, upToOne}},
    {"ifNotNil:ifNil:", Control::ifNotNilIfNil, 0, {upToOne, 0}},
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

bool fitsBlock(const Node* node, int parameters) {
  if (parameters == upToOne) return isBlockOf(node, 0) || isBlockOf(node, 1);
  return isBlockOf(node, static_cast<std::size_t>(parameters));
}

bool isStepLiteral(const Node* node) {
  return node->kind == NodeKind::literal && (node->literal & 3) == 3 && node->literal != 3;
}

bool isLoop(Control control) {
  switch (control) {
    case Control::whileTrue:
    case Control::whileFalse:
    case Control::whileTrueDo:
    case Control::whileFalseDo:
    case Control::toDo:
    case Control::toByDo:
    case Control::timesRepeat:
    case Control::repeat:
      return true;
    default:
      return false;
  }
}

class Resolver {
 public:
  Resolver(Tree& tree, Meter& meter) : tree_(tree), meter_(meter) {}

  void run() {
    enterFunction(*tree_.body);
    for (Scope& scope : tree_.scopes) place(scope);
  }

 private:
  [[noreturn]] static void fail(const std::string& message) { throw Failure(ErrCompile, message); }

  Variable* declare(const std::string& name, bool isArgument) {
    tree_.variables.push_back({name, scope_, isArgument});
    Variable* variable = &tree_.variables.back();
    scope_->variables.push_back(variable);
    if (!name.empty()) {
      visible_[name].push_back(variable);
      inOrder_.push_back(variable);
    }
    return variable;
  }

  void hideBeyond(std::size_t count) {
    for (; inOrder_.size() > count; inOrder_.pop_back()) visible_[inOrder_.back()->name].pop_back();
  }

  Scope* openScope(Node& block, bool isFunction) {
    Scope& scope = tree_.scopes.emplace_back();
    scope.outer = scope_;
    scope.function = isFunction ? &scope : scope_->function;
    block.scope = &scope;
    return scope_ = &scope;
  }

  void enterFunction(Node& block) {
    Scope* scope = openScope(block, true);
    scope->argumentCount = static_cast<std::uint32_t>(block.parameters.size());
    const std::size_t before = inOrder_.size();
    for (const std::string& name : block.parameters) declare(name, true);
    for (const std::string& name : block.temporaries) declare(name, false);
    for (Node* statement : block.parts) visit(statement);
    hideBeyond(before);
    scope_ = scope->outer;
  }

  void enterInlined(Node& block, bool asLoop) {
    block.inlined = true;
    Scope* outer = scope_;
    if (asLoop) openScope(block, false);
    const std::size_t before = inOrder_.size();
    for (const std::string& name : block.parameters) {
      block.inlineVariables.push_back(declare(name, true));
    }
    for (const std::string& name : block.temporaries) {
      block.inlineVariables.push_back(declare(name, false));
    }
    for (Node* statement : block.parts) visit(statement);
    hideBeyond(before);
    scope_ = outer;
  }

  void resolve(Node& node) {
    constexpr std::string_view reserved[] = {"self", "super", "nil", "true", "false"};
    if (std::find(std::begin(reserved), std::end(reserved), node.name) != std::end(reserved)) {
      if (node.kind == NodeKind::assign) fail(node.name + " cannot be assigned to");
      return;
    }
    const auto found = visible_.find(node.name);
    if (found == visible_.end() || found->second.empty()) return;
    node.variable = found->second.back();
    if (node.variable->scope->function != scope_->function) node.variable->captured = true;
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
    if (first != nullptr) visitOperand(first, controlOf(*chain.back()));
    for (auto node = chain.rbegin(); node != chain.rend(); ++node) {
      const Control control = controlOf(**node);
      if (control == Control::toDo || control == Control::toByDo ||
          control == Control::timesRepeat) {
        // Hidden variables: the limit and the counter.
        (*node)->inlineVariables = {declare("", false), declare("", false)};
      }
      for (Node* part : (*node)->parts) visitOperand(part, control);
    }
  }

  void visitOperand(Node* node, Control control) {
    if (control == Control::none || node->kind != NodeKind::block) return visit(node);
    enterInlined(*node, isLoop(control));
  }

  void visit(Node* node) {
    meter_.charge(1);
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
  static void place(Scope& scope) {
    Scope& function = *scope.function;
    for (std::size_t i = 0; i < scope.variables.size(); ++i) {
      Variable& variable = *scope.variables[i];
      if (variable.captured) {
        variable.place = scope.environmentSize++;
      } else if (i < scope.argumentCount) {
        variable.place = static_cast<std::uint32_t>(i);
      } else {
        variable.place = function.argumentCount + function.frameTemporaries++;
      }
    }
  }

  Tree& tree_;
  Meter& meter_;
  Scope* scope_ = nullptr;
  std::unordered_map<std::string, std::vector<Variable*>> visible_;
  std::vector<Variable*> inOrder_;  // of those that are visible, outermost first
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

void resolveNames(Tree& tree, Meter& meter) {
  Resolver(tree, meter).run();
}

}  // namespace zel
