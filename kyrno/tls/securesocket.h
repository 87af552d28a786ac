// securesocket.h - the TLS form of a socket: the same operations, over a GnuTLS session.
//
//   a client      connects and shakes hands in the constructor, which blocks for it
//   a listener    has no session, only credentials
//   an accepted   leaves its handshake to the turns of its connection: lError is
//                 ERR_HANDSHAKE_NOT_COMPLETED, and Handshake is called until it gives another code
//
// Nothing but a client's handshake waits for a peer, on the thread that creates the client. Bytes
// that WriteV takes are sealed at once; what the kernel doesn't take of them goes out with Flush,
// for which OwnWants asks the wait.
//
// Set-up, handshake and verification are in securehandshake.cpp, the stream in securesocket.cpp.
#pragma once

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include "kyrno/net/socket.h"
#include "kyrno/tls/tlscredentials.h"
#include "kyrno/tls/tlspipe.h"
#include "util/freed.h"

/// Owner:   as RPCSOCK.
/// Threads: as RPCSOCK; the session belongs to the work thread's role, and during a client's
///          construction to the constructing thread. paaCert: any thread.
/// Errors:  lError after construction: ERR_TLSHANDSHAKE, ERR_INVALID_PEER_CERTIFICATE,
///          ERR_COULD_NOT_LOAD_CERTIFICATE_FILES, ERR_INITIALISING_TLS, a listener's own codes.
class RPCSECURE final : public RPCSOCK {
 public:
  /// A client, or a listener. giveUp as RPCSOCK; a client's handshake ends by it too, and either
  /// with ERR_TLSHANDSHAKE.
  RPCSECURE(PCH10 name, PCH10 service, bool server, PROTOCOL prot, const REF<CERTDATA>& cert,
            int giveUp = -1);
  /// Accepted by a listener.
  RPCSECURE(SOCKET adopted, const RPCSECURE& listener);
  ~RPCSECURE() override;

  /// Tells the peer, if it takes that at once.
  void CloseSocket() override;
  /// What is held back goes out first.
  SOCKERR Shutdown() override;
  [[nodiscard]] SOCKERR ReadV(const iovec* pieces, int count, size_t* got) override;
  [[nodiscard]] SOCKERR WriteV(const iovec* pieces, int count, size_t* sent) override;
  [[nodiscard]] SOCKERR Accept(PRPCSOCK* out, bool* mustRest) override;
  /// One step, which never waits. A peer that isn't accepted is told so.
  [[nodiscard]] SOCKERR Handshake(bool verify) override;
  [[nodiscard]] SOCKERR Flush() override;
  UI4 OwnWants() const override { return pipe.HasUnsent() ? UI4{EPOLLOUT} : 0; }
  PAA paaCert(bool local) override;
  /// The peer's name as text, cut to size. ERR_INVALID_CERTIFICATE without a certificate.
  SI4 Subject(PCH1 buf, UI4 size) override;
  SI4 PendingRead() override { return established && (lRead != 0 || !starved || pipe.HasFailed()); }
  SI4 SaveCred() override;
  bool IsIn(PCertCollection certs) override;

 private:
  SI4 InitSrv();
  SI4 InitClt(PCH10 service, int giveUp);
  SI4 InitCon();
  void WantClientCert();
  void ResumeFromCache();
  SI4 WaitForHandshake(int giveUp);
  bool VerifyCertificate();
  SI4 ListPeerCerts(const gnutls_datum_t* list, unsigned int count);
  void KeepSession();
  bool IsStarved() const;
  bool Rehandshake(SOCKERR* code);
  ssize_t Receive(PCH1 to, size_t n, SOCKERR* code);
  ssize_t Seal(const iovec* pieces, int count, size_t skip);

  const bool IsClient;
  TEXT Address;                        // who a client has asked for; null for none
  REF<CERTDATA> pCert;                 // constant
  REF<TLSCREDENTIALS> pCredentials;    // constant after construction
  gnutls_session_t session = nullptr;  // owned; null on a listener, and when it couldn't be set up
  gnutls_datum_t hash = {nullptr, 0};  // owned; a client's key in the session cache
  gnutls_x509_crt_t peerCertificate = nullptr;  // owned; constant once established
  TLSPIPE pipe;
  SOCKERR lRead = 0;           // how receiving has ended
  bool established = false;    // the handshake is through
  bool rehandshaking = false;  // the peer has asked for another one, which goes on
  bool starved = false;        // nothing was left to decrypt after the last read
  bool saidBye = false;
  bool shutting = false;     // the sending half is to be closed when all is out
  bool keptSession = false;  // for the next client
  VAHOLD paaPeer GUARDED_BY(Lock);
};
