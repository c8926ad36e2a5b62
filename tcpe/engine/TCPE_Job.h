#pragma once

#include "foundation/Sys_Prefetch.h"
#include "tcpe/engine/TCPE_BlockStore.h"
#include "tcpe/engine/TCPE_QueueLoad.h"

#include <cstddef>
#include <memory>
#include <utility>

class TCPE_Command;

/// Something that waits for a thread of the host. Linked into its queue, so that queueing allocates nothing.
class TCPE_Job {
public:
  using Kind = TCPE_QueueLoad::Kind;
  struct Discarder {
    void operator()(TCPE_Job* job) const { job->Discard(); }
  };
  using Pointer = std::unique_ptr<TCPE_Job, Discarder>;

  /// @param bytes memory that the job holds until it has run
  TCPE_Job(Kind kind, std::size_t bytes) : mBytes(bytes), mKind(kind) {}
  TCPE_Job(const TCPE_Job&) = delete;
  TCPE_Job& operator=(const TCPE_Job&) = delete;

  /// Throws nothing.
  virtual void Run() = 0;
  /// What the job is to handle, if that is a command.
  virtual TCPE_Command* Command() const { return nullptr; }
  Kind GetKind() const { return mKind; }
  std::size_t Bytes() const { return mBytes; }

protected:
  virtual ~TCPE_Job() = default;
  /// Ends its life.
  virtual void Discard() { delete this; }

private:
  friend class TCPE_JobList;

  TCPE_Job* mNext = nullptr;
  std::size_t mBytes;
  Kind mKind;
};

/// Jobs in order, and what they amount to.
class TCPE_JobList {
public:
  TCPE_JobList() = default;
  TCPE_JobList(TCPE_JobList&& other) noexcept
      : mFirst(std::exchange(other.mFirst, nullptr)), mLast(std::exchange(other.mLast, nullptr)),
        mLoad(std::exchange(other.mLoad, {})) {}
  TCPE_JobList& operator=(TCPE_JobList&& other) noexcept {
    TCPE_JobList taken(std::move(other));
    Swap(taken);
    return *this;
  }
  ~TCPE_JobList() {
    while (Pop()) {
    }
  }

  bool IsEmpty() const { return mFirst == nullptr; }
  const TCPE_QueueLoad& Load() const { return mLoad; }
  void Push(TCPE_Job::Pointer job) {
    mLoad.Add(job->mKind, job->mBytes);
    TCPE_Job* const added = job.release();
    (mLast != nullptr ? mLast->mNext : mFirst) = added;
    mLast = added;
  }
  /// Null when there is none.
  TCPE_Job::Pointer Pop() { return Take(&mFirst, nullptr); }
  /// The first query.
  TCPE_Job::Pointer PopQuery() {
    TCPE_Job* before = nullptr;
    TCPE_Job** link = &mFirst;
    while (*link != nullptr && (*link)->mKind != TCPE_Job::Kind::query) {
      before = *link;
      link = &before->mNext;
    }
    return Take(link, before);
  }
  void Append(TCPE_JobList later) {
    if (later.IsEmpty()) {
      return;
    }
    (mLast != nullptr ? mLast->mNext : mFirst) = std::exchange(later.mFirst, nullptr);
    mLast = std::exchange(later.mLast, nullptr);
    mLoad += later.mLoad;
  }

private:
  void Swap(TCPE_JobList& other) {
    std::swap(mFirst, other.mFirst);
    std::swap(mLast, other.mLast);
    std::swap(mLoad, other.mLoad);
  }
  TCPE_Job::Pointer Take(TCPE_Job** link, TCPE_Job* before) {
    TCPE_Job* const job = *link;
    if (job != nullptr) {
      *link = std::exchange(job->mNext, nullptr);
      mLast = mLast == job ? before : mLast;
      mLoad.Remove(job->mKind, job->mBytes);
      Sys_Prefetch(*link, TCPE_BlockStore::kUsualSize); // whose core was another one
    }
    return TCPE_Job::Pointer(job);
  }

  TCPE_Job* mFirst = nullptr;
  TCPE_Job* mLast = nullptr;
  TCPE_QueueLoad mLoad;
};
