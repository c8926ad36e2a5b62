#pragma once

#include <compare>
#include <cstdint>

/// The master's part in handing control over: one transition at a time, and nobody is named before the last holder has
/// let go or cannot have control any more.
///
/// A request makes the holder be asked; when it agrees the asker is announced. When it refuses or does not answer it
/// stays the holder and is announced again, in case it lets go later than it can say so. A holder that leaves lets go
/// by that, and one whose connection is lost lets go when it notices, within a time that the owner waits; then control
/// falls to the master. No threads, no network; the owner guards it.
class Trel_ControlArbiter {
public:
  explicit Trel_ControlArbiter(std::uint32_t master) : mMaster(master), mHolder(master) {}

  /// The master has another address from now on.
  void SetMaster(std::uint32_t address);

  enum class Verdict : std::uint8_t {
    busy,      ///< refused; nothing changes
    granted,   ///< the asker has control already; it is announced again
    askHolder, ///< GetHolder() is to be asked to let go; HolderAnswered follows
  };
  Verdict Request(std::uint32_t asker);

  enum class Answer : std::uint8_t { agreed, refused, none };
  /// True when control goes to the asker.
  bool HolderAnswered(Answer answer);

  /// A system is not in the link any more, or has come anew, without control. `isLost`: it may not know yet.
  void SystemGone(std::uint32_t address, bool isLost);

  /// GetHolder() is to be announced to all: BeginAnnouncement when that begins, Announced when all have acknowledged or
  /// are given up. Meanwhile nobody may be linked anew.
  bool MustAnnounce() const { return mPhase == Phase::named; }
  void BeginAnnouncement() { mPhase = Phase::announcing; }
  void Announced();
  /// A lost holder may still think that it has control; WaitOver follows when it cannot any more.
  bool MustWait() const { return mPhase == Phase::waiting; }
  void WaitOver();

  /// 0 while a lost holder is waited for.
  std::uint32_t GetHolder() const { return mHolder; }

  auto operator<=>(const Trel_ControlArbiter&) const = default;

private:
  enum class Phase : std::uint8_t { settled, asking, named, announcing, waiting };
  enum class Presence : std::uint8_t { there, hasLeft, isLost };

  void Name(std::uint32_t holder);
  /// The holder is not there: control falls to the master, at once or after the wait.
  void FallBack(Presence holder);

  std::uint32_t mMaster;
  std::uint32_t mHolder;
  std::uint32_t mAsker = 0;      // while asking
  std::uint32_t mLostHolder = 0; // while waiting
  Phase mPhase = Phase::named;   // the master itself
  // What has become of them during a transition.
  Presence mHolderPresence = Presence::there;
  bool mIsAskerThere = true;
};
