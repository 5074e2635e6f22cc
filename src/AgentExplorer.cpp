// "show" and "set" over the command socket, through the generic attribute interface.
#include <Vell/AgentExplorer.h>

#include <sstream>

namespace Vell {

namespace {
std::vector<std::string> words(std::string_view args, std::size_t most) {
  std::vector<std::string> out;
  std::size_t i = 0;
  while (out.size() + 1 < most) {
    while (i < args.size() && (args[i] == ' ' || args[i] == '\n' || args[i] == '\t')) ++i;
    if (i == args.size()) return out;
    std::size_t const start = i;
    while (i < args.size() && args[i] != ' ' && args[i] != '\n' && args[i] != '\t') ++i;
    out.emplace_back(args.substr(start, i - start));
  }
  while (i < args.size() && args[i] == ' ') ++i;  // the last word is the rest of the line
  std::string_view rest = args.substr(i);
  while (!rest.empty() && (rest.back() == '\n' || rest.back() == ' ')) rest.remove_suffix(1);
  if (!rest.empty()) out.emplace_back(rest);
  return out;
}

// The callback behind one word; it holds its explorer, which does not hold it.
class ExplorerCallback : public AgentSocketCallback {
 public:
  ExplorerCallback(Quor::String8 const& word, Quor::Ptr<AgentExplorer> const& intro)
      : AgentSocketCallback(Quor::Name("explorer " + word.str()), word), intro_(intro) {}
  // NOLINTNEXTLINE(performance-unnecessary-value-param): the virtual interface takes the text by value
  void handleCommand(unsigned int descriptor, Quor::String8 args) override {
    std::string const reply = commandType() == "set" ? intro_->set(args.str()) : intro_->show(args.str());
    agentSocketReply(descriptor, reply);
  }

 private:
  Quor::Ptr<AgentExplorer> intro_;
};
}  // namespace

void AgentExplorer::serve(Quor::Name const& name, Served s) {
  if (name.str().find_first_of(" \t\n") != std::string::npos || name.size() == 0)
    Quor::throwRangeException(Quor::String8("explorer name '" + name.str() + "' must be one word"));
  Quor::checkNotNull("Vell::AgentExplorer", "entity", s.object);
  if (!s.object->fwkType()) Quor::throwRangeException(Quor::String8(name.str() + " has no type record"));
  served_[name] = std::move(s);
}

void AgentExplorer::entityDel(Quor::Name const& name) { served_.erase(name); }

Quor::GenericIf AgentExplorer::generic(Served const& s) const {
  return s.writable ? Quor::GenericIf(Quor::Ptr<Quor::PtrInterface>(s.writable)) : Quor::GenericIf(s.object);
}

std::string AgentExplorer::show(std::string_view args) const {
  ++requests_;
  auto const w = words(args, 3);
  if (w.empty()) {
    std::string out;
    for (auto const& [n, s] : served_) out += n.str() + "\n";
    return out;
  }
  auto it = served_.find(Quor::Name(w[0]));
  if (it == served_.end()) return "no entity '" + w[0] + "'\n";
  try {
    Quor::GenericIf const g = generic(it->second);
    if (w.size() > 1) {
      Quor::String8 const text = g.attr(w[1]);
      return g.type().attr(w[1])->text ? text.str() + "\n" : text.str();
    }
    std::string out;
    for (auto const& a : g.type().attrs) {
      if (a.text) {
        out += a.name + " " + a.text(*it->second.object).str() + "\n";
        continue;
      }
      for (auto const& [k, v] : a.members(*it->second.object)) out += a.name + "[" + k.str() + "] " + v.str() + "\n";
    }
    return out;
  } catch (Quor::Exception const& e) {
    return std::string(e.what()) + "\n";
  }
}

std::string AgentExplorer::set(std::string_view args) {
  ++requests_;
  auto const w = words(args, 3);
  if (w.size() < 3) return "usage: set NAME ATTR VALUE\n";
  auto it = served_.find(Quor::Name(w[0]));
  if (it == served_.end()) return "no entity '" + w[0] + "'\n";
  try {
    Quor::Ptr<Quor::PtrInterface const> const keep = it->second.object;  // a reactor may drop it
    generic(it->second).attrIs(w[1], Quor::String8(w[2]));
    return "ok\n";
  } catch (Quor::Exception const& e) {
    return std::string(e.what()) + "\n";
  }
}

Quor::Ptr<AgentExplorer> agentExplorerFactory(Quor::Ptr<AgentSocketHandlerSm> const& handler) {
  Quor::checkNotNull("Vell::AgentExplorer", "handler", handler);
  auto intro = Quor::makeEntity<AgentExplorer>(Quor::Name("explorer of " + handler->name().str()));
  for (char const* word : {"show", "set"}) {
    Quor::Ptr<AgentSocketCallback> cb(new ExplorerCallback(word, intro));
    cb->hasNotificationActiveIs(true);
    handler->agentSocketCallbackIs(cb);
  }
  return intro;
}

}  // namespace Vell
