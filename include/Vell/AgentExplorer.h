// The explorer: over the command socket, any entity an agent hands over can be read,
// and its writable attributes set, by name, with no code of the agent's own.
//
//   vellctl AGENT show                    the names handed over, one a line
//   vellctl AGENT show NAME               every attribute, one "attr value" a line; a
//                                         collection's members one "attr[key] value" a line
//   vellctl AGENT show NAME ATTR          one attribute, or a collection's members one
//                                         "key value" a line
//   vellctl AGENT set NAME ATTR VALUE     writes through the attribute's mutator: bounds,
//                                         texts and notifications as usual; replies "ok"
//                                         or the error's text
//
// Registered in one line: agentExplorerFactory(handler) adds the words "show" and
// "set" to the handler; then entityIs("wheel", wheel) for each entity to serve. An
// entity handed over const (Ptr<T const>) is read-only: a set answers "attempting to
// modify a const instance".
//
// Costs: a request formats what it prints, nothing more; the entities are held (Ptr)
// while served.
#pragma once
#include <map>
#include <type_traits>

#include <Quor/Quor.h>
#include <Vell/AgentSocketHandler.h>

namespace Vell {

class QUOR_API AgentExplorer : public Quor::Entity {
 public:
  explicit AgentExplorer(Quor::Name const& name) : Quor::Entity(name) {}

  /// Serves e under `name` (one word: a name with a blank throws RangeException),
  /// replacing any other of that name. Throws for an object without a type record.
  template <class T>
  void entityIs(Quor::Name const& name, Quor::Ptr<T> const& e) {
    Quor::PtrInterface* writable = nullptr;
    if constexpr (!std::is_const_v<T>) writable = e.ptr();
    serve(name, Served{Quor::Ptr<Quor::PtrInterface const>(e), writable});
  }
  void entityDel(Quor::Name const& name);
  std::size_t entities() const { return served_.size(); }
  /// Requests answered ("show" and "set" together).
  U64 requests() const { return requests_; }

  QUOR_ENTITY_TYPE(AgentExplorer, "Vell::AgentExplorer", Quor::attr("entities", &AgentExplorer::entities),
                   Quor::attr("requests", &AgentExplorer::requests))

  /// The replies, as the command words give them (for tests and other transports).
  std::string show(std::string_view args) const;
  std::string set(std::string_view args);

 private:
  struct Served {
    Quor::Ptr<Quor::PtrInterface const> object;
    Quor::PtrInterface* writable = nullptr;  // the same object, when handed over mutable
  };
  void serve(Quor::Name const& name, Served s);

  Quor::GenericIf generic(Served const& s) const;
  std::map<Quor::Name, Served> served_;
  mutable U64 requests_ = 0;  // show() is a reader, yet counts
};

/// An explorer served through `handler` under the words "show" and "set"
/// (replacing callbacks of those words).
QUOR_API Quor::Ptr<AgentExplorer> agentExplorerFactory(Quor::Ptr<AgentSocketHandlerSm> const& handler);

}  // namespace Vell
