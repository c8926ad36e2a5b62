#pragma once

#include <compare>
#include <cstdint>
#include <optional>

/// What one system knows about control: whether it has it itself, and who has it.
///
/// A system has control from the announcement that names it until it lets go, another system is announced, or its link
/// is gone. No threads, no network; the owner guards it.
class Trel_ControlState {
public:
  bool HasControl() const { return mHasControl; }
  /// 0 when unknown.
  std::uint32_t GetHolder() const { return mHolder; }
  /// How often the link, and control with it, was lost.
  std::uint64_t GetLosses() const { return mLosses; }

  /// This system asks for control. False while it does so already.
  bool BeginRequest();
  void EndRequest() { mIsAsking = false; }

  /// It is asked to let go. Nothing means that it does not: its own request is pending. Otherwise the host is asked,
  /// and the ticket goes to LetGo if it agrees.
  using Ticket = std::uint64_t;
  std::optional<Ticket> AskToLetGo() const;
  /// False when somebody was announced while the host made up its mind: that answer is too late.
  bool LetGo(Ticket ticket);

  /// A system was announced as the one in control; address 0 when it is not known by one. True when it is another one
  /// than was known.
  bool Announce(std::uint32_t holder, bool isThisOne);
  /// The link is gone, and control with it.
  void LoseLink();

  auto operator<=>(const Trel_ControlState&) const = default;

private:
  std::uint32_t mHolder = 0;
  std::uint64_t mAnnouncements = 0;
  std::uint64_t mLosses = 0;
  bool mHasControl = false;
  bool mIsAsking = false;
};
