// rpcobjs.h - the base of everything that a node owns: type, state, and how the two sides meet.
//
// The state word is the meeting point of interpreter threads (A) and the work thread (W). It holds
// an OBJSTATE and one more bit, kSeized: while that is set, one thread has the object for itself,
// and nobody else moves the state except AClose, which stores SFinished.
//
//   from            on                       to                     by   how
//   a ready state   AWaitZ picks it          SProcessing | kSeized  A    Pick: compare-exchange
//   ... | kSeized   GetWaitReturns is done   its new state          A    Unpick: compare-exchange
//   any idle state  one side needs it alone  same | kSeized         A,W  Seize: compare-exchange
//   ... | kSeized   done                     next state             A,W  Settle: compare-exchange
//   SFinished       the next turn            SMarkedForDeletion     W    then unlinked and retired
//
// Ready states are SIncoming, SAPL, SError, SAPLLast and SSent: the object has something for the
// application. Each class's own transitions stand above its code.
#pragma once

#include <atomic>

#include "Apl/vapl.h"
#include "kyrno/annotate.h"
#include "kyrno/net/buffer.h"
#include "kyrno/net/socket.h"
#include "kyrno/tree/hieraki.h"
#include "kyrno/tree/threadsem.h"

enum OBJTYPE : UI8 {
  TRoot,
  TServer,
  TClient,
  TConnection,
  TCommand,
  TMessage,
  TRelay,
  TUdp,
  TUdpPeer,
  ENDTYPE = 0x7FFFFFFFFFFFFFFF
};

enum OBJSTATE : UI4 {
  SNew,                // created, not yet at work
  SIncoming,           // a new connection waits for the application
  SRootInit,           // root ready with its work thread
  SListen,             // server is listening
  SConnected,          // connection established
  SAPL,                // data waits for the application
  SReadyToSend,        // work thread is to start sending
  SSending,            // send in progress
  SProcessing,         // handed over to the application
  SReadyToRecv,        // work thread is to start receiving
  SReceiving,          // receive in progress
  SFinished,           // ended; the work thread is to mark it
  SMarkedForDeletion,  // unlinked by the parent's check
  SError,              // error waits for the application
  SDoNotChange,        // marker of NextState, NextPState and LastState
  SShutdown,           // closing
  SSocketClosed,       // peer closed
  SAPLLast,            // last piece of data waits for the application
  SSSL,                // TLS handshake in progress
  SSent,               // a send's completion waits for the application
  SListenPaused,       // listener paused
  SGotoPause           // listener goes into pause
};

enum OBJMODE : UI8 {
  MCommand,
  MRaw,
  MAscii,
  MBlkRaw,
  MBlkAscii,
  MHttp,
  MUdp,
  MWebSocket,
  MMAX,
  MENDTYPE = 0x7FFFFFFFFFFFFFFF
};

/// The words of OBJMODE.
extern const PCH10 modename[MMAX];

/// What AWaitZ tells the application about an object.
enum EVENTS {
  EReceive,
  EProgress,
  EBlock,
  EError,
  EBlockLast,
  EConnect,
  EReceiveLast,
  ESent,
  ETimeout,
  EClose,
  EWSUpgrade,
  EWSReceive,
  EMAX
};
extern const PCH10 eventname[EMAX];
inline constexpr size_t kEventSize = 48;  // room for an event word

constexpr bool IsReadyState(OBJSTATE s) {
  return s == SIncoming || s == SAPL || s == SError || s == SAPLLast || s == SSent;
}

/// What a turn in the work thread's role hands to every object. The root's, for its whole life.
struct FDSETS {
  SOCKETSETS ss;  // what the sockets of the root want, and what the last wait has brought
  PHIERAKI pItem = nullptr;  // node of the object that is called
  bool endWorkThread = false;
  bool closeAllSockets = false;
  F8 now = 0;  // Micros of the read that has brought what is cut into messages just now
};
using PFDSETS = FDSETS*;

class ROOT;

/// A callback instead of a wake-up, on roots that work out of stream: of the nearest client or
/// connection, for what became ready there or below. On the work thread, between two parts of its
/// turn, with no lock held and not in its role.
using TPOOSFN = void (*)(PHIERAKI item);

/// Owner:   its node; before that, whoever made it.
/// Threads: see the table above. Operations are the interpreter threads', inside the gate, unless
///          marked WORK_ONLY.
/// Errors:  lErrorObj is for the application and comes out with the "Error" event.
class RPCOBJS : public RETIRED {
 public:
  explicit RPCOBJS(OBJTYPE type, F8 now = Micros());
  ~RPCOBJS() override;
  RPCOBJS(const RPCOBJS&) = delete;
  RPCOBJS& operator=(const RPCOBJS&) = delete;

  /// AClose on this object. 1127 while it sends or receives.
  [[nodiscard]] virtual SI4 Close(PHIERAKI item);
  /// Called on an ancestor when a node with a clean-up duty is unlinked.
  virtual SI4 CleanUp(PHIERAKI item) WORK_ONLY;
  /// Queues a buffer, which it owns from here on, whatever it answers. An empty name is completed.
  [[nodiscard]] virtual SI4 SendBuffer(PHIERAKI item, PCH1 name, PBUFFER buffer, UI4 flag);
  /// Queues the content of a Z of `size` bytes, which stays the caller's. flag: 0 plain, 1 send and
  /// close, 2 no answer wanted, 3 report "Sent".
  [[nodiscard]] virtual SI4 SendZ(PHIERAKI item, PCH1 name, PUI4 z, UI4 size, UI4 flag);
  /// Turns a Z into a buffer ready to send; the result is the caller's, null on failure.
  [[nodiscard]] virtual SI4 ComposeBuffer(PUI4 z, UI4 size, PBUFFER* out);
  /// The same from bytes and, unless file is -1, an open file that follows them and is owned here.
  /// Without a file the data may be null: the last n bytes of the buffer are then the caller's to
  /// write.
  [[nodiscard]] virtual SI4 ComposeBuffer(PUI1 data, UI4 n, int file, PBUFFER* out);
  [[nodiscard]] virtual SI4 SetRPCProp(PHIERAKI root, PCH10 name, PAA value);
  [[nodiscard]] virtual SI4 GetRPCProp(PCH10 name, PAA args, PPAA out);
  /// What the wait that picked this object tells: full name (kFullNameSize + 1 bytes), event word
  /// (kEventSize), the state it takes now, and a Z that becomes the caller's. 1008 for nothing to
  /// report. Any other code: the data was bad, the object goes and its connection fails with it.
  [[nodiscard]] virtual SI4 GetWaitReturns(PHIERAKI item, PCH1 objname, PCH1 event, OBJSTATE* next,
                                           PUI4* ppZ);
  /// The buffer whose counts a listing shows; null for none. The caller only reads the counts.
  virtual PBUFFER GetBuffer() { return nullptr; }
  /// What is to go out for this object; null for nothing.
  virtual PBUFFER Outgoing() { return nullptr; }

  /// The turn: see work.h. Of what has no socket of its own, Check alone is called, when it was
  /// touched; it tells the connection above what it has to send or wants to receive.
  virtual SI4 Setinfo(PFDSETS) WORK_ONLY { return 0; }
  virtual SI4 Execute(PFDSETS) WORK_ONLY { return 0; }
  virtual SI4 Check(PFDSETS) WORK_ONLY { return 0; }
  /// Its node has just been unlinked, or the one above: gives up its socket, or its place in the
  /// connection above.
  virtual void Leave(PHIERAKI) WORK_ONLY {}
  /// Another object had this one's node until now: takes over what goes on there. The other one
  /// stays as it is for threads that still look at it, and does nothing any more.
  virtual void TakeOver(RPCOBJS* from) WORK_ONLY { (void)from; }
  /// For sanitizer builds: nothing is left that the work thread would have to do for this object.
  virtual bool IsSettled(PHIERAKI) WORK_ONLY { return true; }
  /// The connection above has ended. True when this object has nothing left to report because of
  /// that; false to be asked again next turn.
  virtual bool ConnectionEnded(PHIERAKI item) WORK_ONLY;
  /// Finished: gives up what is still to come for it and below from the connection's stream. False
  /// when it, or something below, is half sent: that has to go out first.
  virtual bool Abandon(PHIERAKI item) WORK_ONLY;
  /// Finished, but its socket has still something to do: Abandon answers false for now.
  virtual bool Lingers() const WORK_ONLY { return false; }
  /// Data from this object's child proved bad while it was delivered; called by the waiting thread.
  virtual void ChildFailed(PHIERAKI item, SI4 code);
  /// A node below became ready, on a root that hands out in order of arrival.
  virtual void ChildReady(PHIERAKI child);
  /// A forked child gives the root up: closes descriptors, takes no lock, frees nothing.
  virtual void CloseAfterFork() {}
  /// The callback of a root that works out of stream; null for none.
  virtual TPOOSFN Callback() { return nullptr; }

  /// The ready queue of a root's object; null for every other.
  virtual READYQUEUE* OwnQueue() { return nullptr; }
  /// A closed object that is no event of its own, because this side closes it.
  virtual bool ClosesSilently() const { return false; }

  // --- the state word. Each step that a search could notice goes on to the ready queue.
  OBJSTATE GetState() const { return ToState(word.load(std::memory_order_acquire)); }
  /// Hand-over: whoever sees the new state sees all that was written before it. For the one side to
  /// which the object belongs just now.
  void SetState(OBJSTATE s) { Stored(word.exchange(s, std::memory_order_seq_cst), s); }
  /// Out of SFinished, which nobody leaves any more: to a search the two are the same.
  void MarkForDeletion() { word.store(SMarkedForDeletion, std::memory_order_release); }
  /// One step that two threads could take. False when the state is another one or seized.
  bool Move(OBJSTATE from, OBJSTATE to) { return Exchange(from, to); }
  /// The same for a state that a pick may hold: the pick then finds that its own state came too
  /// late.
  bool Replace(OBJSTATE from, OBJSTATE to) {
    return Exchange(from, to) || Exchange(from | kSeized, to);
  }
  bool Seize(OBJSTATE from) { return Exchange(from, from | kSeized); }
  /// Ends a seizure. False when AClose has come in between: its SFinished stays.
  bool Settle(OBJSTATE seized, OBJSTATE to) { return Exchange(seized | kSeized, to); }
  bool IsSeized() const { return word.load(std::memory_order_acquire) & kSeized; }
  /// Takes a ready or closed object for the calling wait, which alone has it until Unpick. For the
  /// ready queue, which updates itself.
  bool Pick(OBJSTATE from) { return Step(from, SProcessing | kSeized); }
  /// Ends a pick. Does nothing when a later state, such as that of AClose, has been stored.
  void Unpick(OBJSTATE next) { Exchange(SProcessing | kSeized, next); }
  /// Stores SFinished unless the object is already on its way out.
  void Finish();

  /// Becomes ready for the application: notes the time, stores the state, Ready4Apl. In the work
  /// thread's role, out of a state in which AClose leaves the object alone.
  void MakeReady(PHIERAKI item, OBJSTATE ready, F8 now = Micros());
  /// The same at the end of a seizure; nothing happens when AClose has come in between.
  void SettleReady(PHIERAKI item, OBJSTATE seized, OBJSTATE ready, F8 now = Micros());
  /// Notes the nearest waiter on the item or above, or calls the callback. The waiter wakes when
  /// the work thread's role is given up; who does not have it calls Waiters.Post.
  static void Ready4Apl(PHIERAKI item);
  /// The root object above a node.
  static ROOT* RootOf(PHIERAKI item);

  /// Hand-over of the fields around the state; plain words that the owner of the moment writes.
  template <typename T>
  class WORD {
   public:
    explicit WORD(T v) : value(v) {}
    operator T() const { return value.load(std::memory_order_acquire); }
    T operator=(T v) {
      value.store(v, std::memory_order_release);
      return v;
    }
    T Exchange(T v) { return value.exchange(v, std::memory_order_acq_rel); }

   private:
    std::atomic<T> value;
  };

  const OBJTYPE Type;
  WORD<OBJSTATE> NextState{SDoNotChange};   // what a pending step moves to
  WORD<OBJSTATE> NextPState{SDoNotChange};  // what the parent takes after this was picked up
  WORD<OBJSTATE> LastState{SDoNotChange};   // the ready state that a wait picked up
  WORD<OBJMODE> Mode{MCommand};
  WORD<F8> timeReady;             // Micros
  WORD<F8> timeCreate;            // Micros
  WORD<SI4> lErrorObj{0};         // pending error
  WORD<PHIERAKI> pItem{nullptr};  // borrowed; the node that owns this object

  // Kept by the connection above: its place among what is to be sent, and whether it has still to
  // be told that the stream has ended.
  PHIERAKI pNextOut WORK_DATA = nullptr;  // borrowed, both
  PHIERAKI pPrevOut WORK_DATA = nullptr;
  bool isOut WORK_DATA = false;
  bool isUntold WORK_DATA = false;

 private:
  static constexpr UI4 kSeized = 0x100;
  static OBJSTATE ToState(UI4 w) { return static_cast<OBJSTATE>(w & ~kSeized); }
  bool Step(UI4 from, UI4 to) {
    return word.compare_exchange_strong(from, to, std::memory_order_seq_cst,
                                        std::memory_order_acquire);
  }
  bool Exchange(UI4 from, UI4 to) {
    if (!Step(from, to)) return false;
    Stored(from, to);
    return true;
  }
  /// What a word is to a search: 0 for a passage, otherwise the word itself.
  static UI4 PartOf(UI4 w);
  void Stored(UI4 from, UI4 to) {
    if (PartOf(from) != PartOf(to)) Update();
  }
  void Update();

  std::atomic<UI4> word{SNew};
};

// --- parts of what is composed
/// The bytes of a simple array in a block of their own, for free(); null for none.
[[nodiscard]] SI4 GetBytes(PAA array, PUI1* bytes, PUI4 n);
/// Opens what element 1 names, an ordinary file, for reading. ERR_FILE, and the codes of the text.
[[nodiscard]] SI4 OpenNamed(PAA array, int* file);

/// A property that answers with a scalar integer; 0 or 1012.
[[nodiscard]] SI4 PropSI4(SI4 value, PPAA out);
/// ... with a vector of integers.
[[nodiscard]] SI4 PropVector(const SI4* values, UI4 count, PPAA out);
/// ... with a character vector.
[[nodiscard]] SI4 PropText(PCH10 text, PPAA out);
/// ... with a nested vector of character vectors.
[[nodiscard]] SI4 PropWords(const PCH10* words, UI4 count, PPAA out);
