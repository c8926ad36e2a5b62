#pragma once

#include "link/session/Trel_SessionTypes.h"

#include <cstdint>
#include <optional>
#include <set>

/// The link as those parts of a session see it that do not build it: conducting and the shared state.
class Trel_SessionLink {
public:
  using Time = Trel_SessionTime;
  using Message = Trel_SessionMessage;
  using Action = Trel_SessionAction;
  using Event = Trel_LinkEvent;

  virtual std::uint32_t Self() const = 0;
  virtual bool IsMaster() const = 0;
  /// 0 when it is not known.
  virtual std::uint32_t Master() const = 0;
  /// Those that this system talks to.
  virtual std::set<std::uint32_t> GetLinkedAddresses() const = 0;
  /// 0 when it is not known.
  virtual std::uint32_t Holder() const = 0;
  virtual bool HasControl() const = 0;
  /// The running time of a moment; nothing while the clock is not locked to the master's.
  virtual std::optional<Time> RunningTime(Time now) const = 0;
  virtual Event::System Describe(std::uint32_t address) const = 0;

  virtual Action::Request NextRequest() = 0;
  virtual void Send(std::set<std::uint32_t> to, Message::Any message, Action::Request request = 0,
                    Action::Token waiting = 0) = 0;
  virtual void Do(Action::Any action) = 0;
  virtual void Tell(Event event) = 0;

  /// Whether what a system wants of all is done: it is in control, or the master passes it on.
  bool MayConduct(std::uint32_t address) const {
    return address != 0 && (address == Holder() || (!IsMaster() && address == Master()));
  }
  /// `none` when this system is in control.
  Trel_LinkRefusal WhyNotInControl() const {
    if (HasControl()) {
      return Trel_LinkRefusal::none;
    }
    return !IsMaster() && GetLinkedAddresses().empty() ? Trel_LinkRefusal::notLinked : Trel_LinkRefusal::notInControl;
  }
  /// Those that hear from this system what another one, or it, wants of all. A satellite's wishes travel through the
  /// master, in a mesh too, so that all systems hear everything once and in one order.
  std::set<std::uint32_t> Listeners(std::uint32_t by) const {
    std::set<std::uint32_t> listeners;
    if (IsMaster()) {
      listeners = GetLinkedAddresses();
      listeners.erase(by);
    } else if (by == Self() && GetLinkedAddresses().contains(Master())) {
      listeners.insert(Master());
    }
    return listeners;
  }
  void TellRefused(Event::Wish wish, std::uint32_t by, Event::Reason reason = Event::Reason::notInControl) {
    Tell({.kind = Event::Kind::wishRefused, .reason = reason, .system = Describe(by), .wish = wish});
  }

protected:
  ~Trel_SessionLink() = default;
};
