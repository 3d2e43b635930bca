// INBOX through an LMTP server (RFC 2033) instead of the store's delivery
// agent: a local socket ("lmtp:unix:PATH") or a host and port
// ("lmtp:inet:HOST:PORT"), so that a host can deliver into a proxy in front
// of many storage servers.
//
// Promises: one connection per delivery: LHLO, MAIL FROM (the null sender as
// <>), RCPT TO, DATA with dot-stuffing and CRLF line ends, QUIT; MAIL, RCPT
// and DATA as one group when LHLO's reply offers PIPELINING, the message
// only after DATA's 354, and the first refusal decides. Every wait is
// bounded by lmtp_timeout. The answer speaks the delivery agents' exit
// language, so the driver's exit table needs nothing new: 0 delivered, 77
// over quota (452 or 552 with 4.2.2 or 5.2.2), 100 any other permanent
// refusal (5xx), and LDA_TRY_LATER for any other temporary refusal, a refused
// or dropped connection, a reply that is no reply, or a timeout. Each ending
// but success is logged once with the server's words.
#pragma once
#include <string>

struct LmtpReply {
    int code = 0;          // 200..599
    std::string enhanced;  // "2.0.0", or empty when the reply has none
    std::string text;      // every line's text, joined by blanks
};

// Reads one (possibly multi-line) reply from the start of data: the bytes it
// took, 0 when the reply is not complete yet, -1 when the bytes are no reply.
long lmtpParseReply(const char *data, unsigned long size, LmtpReply &reply);

// Delivers the message on fd to rcpt through route. said gets the server's
// last reply, for the summary line.
int lmtpDeliver(int fd, const std::string &route, const char *sender, const char *rcpt, std::string &said);
