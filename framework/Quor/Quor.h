// Umbrella header of the Quor entity/reactor framework.
//
// Glossary
//   entity     an object whose state is a fixed list of named attributes (Quor::Entity),
//              reference-counted (Quor::Ptr), made by a factory named after its class.
//   reactor    (notifiee) an object attached to one notifier with notifierIs(); each
//              change of the notifier's attribute x calls its onX(). A notifier keeps its
//              reactors in a list that tolerates attaching and detaching during a call.
//   clock reactor  a one-shot reactor on a Quor::Clock: timeMinIs(t) arms it, onTime()
//              runs once when the loop's time reaches t.
//   activity   one event loop (Quor::ActivitySm) that runs every reactor of its entities,
//              one call at a time: no threads, no locks.
//   Sm         "state machine": an entity that owns a process resource and the logic
//              driving it (AgentSocketHandlerSm, InotifyMgrSm, ...).
//   naming     x() reads attribute x; xIs(v) sets it (unchanged values notify nobody);
//              xDel(k) / xDelAll() remove members of a collection; newX(...) makes a child
//              in place; doX() is an operation asked of the entity; handleX() is its
//              reaction to an event; onX() is a reactor's hook.
#pragma once
#include <Quor/Types.h>
#include <Quor/Ptr.h>
#include <Quor/String.h>
#include <Quor/Exception.h>
#include <Quor/Assert.h>
#include <Quor/Notifiee.h>
#include <Quor/Entity.h>
#include <Quor/Time.h>
#include <Quor/Activity.h>
#include <Quor/OwnerReactor.h>
#include <Quor/Collections.h>
#include <Quor/Trace.h>
#include <Quor/Log.h>
#include <Quor/Strep.h>
#include <Quor/NboAttrLog.h>
#include <Quor/Type.h>
#include <Quor/SignalHandler.h>
