#pragma once
// The simulator's --help text (also read by the tests, which feed its users-file example to the agent).
namespace tdacli::loginsim {

inline constexpr const char* kUsage = R"(Usage: td-login-server --listen ADDRESS[:PORT] --users FILE [options]
       td-login-server --http ADDRESS:PORT --users FILE [options]
       td-login-server --https ADDRESS:PORT --cert FILE --key FILE --users FILE [options]
       td-login-server --make-test-pki FOLDER

Plays the TD Login Server: answers the login, logoff and status exchanges of the line protocol
(plain text, no terminator, one reply per request) from a users file, and prints a transcript.
With --http or --https it plays the login web service instead (see "Web service" below).

  --listen ADDRESS[:PORT]  IPv4 address to listen on (any 127.0.0.x); the port is 5003 unless given
  --users FILE             the users file (below)
  --transcript FILE        also write the transcript to FILE (replaced at start)
  --fault MODE             misbehave: silent      accept, then never send anything
                                      close-mid   greet, then hang up on the first request
                                      reset-mid   greet, then reset the connection (RST) on
                                                  the first request
                                      unexpected  greet, then answer the first request with
                                                  "TD Login Server Says Something Unexpected"
                                      two-in-one  send the "100SCREEN" push and the reply to
                                                  SERVERTEMP, Logoff... or STATUS... in one write
                                      delay=MS    send every reply MS milliseconds late
  --once                   serve one connection, then exit
  --push-gap MS            pause after each push before the next reply (default 50)
  --exit-after SECONDS     give up and exit with code 3 after SECONDS
  --quiet                  no transcript on standard output
  --help                   this text

Web service:
  --http ADDRESS:PORT      serve the login web service over HTTP (PORT 0: any free port; the
                           transcript's first line names it)
  --https ADDRESS:PORT     the same over HTTPS, with
  --cert FILE --key FILE   the server certificate and its key (PEM)
  --grabber-task MACHINE=TASK
                           queue a screen-grabber task for MACHINE (its fully qualified name, any
                           case); the next GrabberMethod call for it answers
                           "SUCCESS|SENDFRAMES|" + TASK, later ones "SUCCESS|NONE" (repeatable)
  --fault MODE             404        answer every request with status 404
                           empty      answer with status 200 and an empty body
                           error      answer "ERROR|Simulated failure"
                           slow       answer 15 s late (beyond the agent's 10 s time-out)
                           delay=MS   answer MS milliseconds late
                           untrusted  (--https) use a self-signed certificate made at start
                                      instead of --cert/--key: no client trusts it
                           oversize   answer with a body of 100 KiB
  --make-test-pki FOLDER   write ca.pem, and server.pem/server.key signed by it for 127.0.0.1,
                           ::1 and localhost, into FOLDER, then exit (for tests)

  Methods under /TDLoginWebService/TDLoginWebService.asmx/: LoginMethod?WinName=&LocalIP=&Extension=
  answers "SUCCESS|SERVERTEMP=..|LOCALTEMP=..|USETRACE=..[|WEBCAM=..][|SCREEN100=..][|PHONEHOME=..]
  |IPMASK=..|KEKINFO=..|TDLIVEID=.." ("|" inside a value sent as "_") or "ERROR|NoMatchingWinName";
  LogOffMethod?WinName=&LocalIP= answers "SUCCESS|" (or the error); StatusMethod?WinName=&Status=
  answers "SUCCESS|". Under /TDFrameReceiverWebService/TDFrameReceiverWebService.asmx/:
  GrabberMethod?Machine=. Every reply is the XML string result; unknown paths answer 404.
  Transcript: "[n] C> GET target" and "[n] S> status body" per request n.

Users file: one section per Windows name (matched without regard to case), keys in any case:

  # comment
  [jsmith]
  ServerTemp=\\fs01\tdtemp\:FTP@ftp.example.com:tduser:9F8E7D6C
  LocalTemp=C:\%WINDIR%\Temp
  LiveID=48213:10.1.2.3:5020:T
  KekInfo=KEK-0001
  ValidIPMask=192.168.5.
  Trace=True
  WebCam=true
  100Screen=SCR:010|ATLOGO:4|010|001
  ListenPorts=5001,6000,6001,6002
  PhoneHome=True

Replies: greeting "TD Agent Connect OK"; "ID<name>" -> "ID OK"; "IP<addr>" -> "IP Addr OK";
"EX<ext>" -> "EXT OK"; "TDLIVEID" -> the pushes "100SCREEN<100Screen>" and
"LISTENPORTS<ListenPorts>" when set, then "TDLIVEID=<LiveID>"; "SERVERTEMP" -> "SERVERTEMP<ServerTemp>"
or "SERVERTEMPNoMatchingWinName" for a name not in the file; "LOCALTEMP" -> "LOCALTEMP<LocalTemp>";
"KEKINFO" -> "KEKINFO<KekInfo>"; "VALIDIPMASK" -> "VALIDIPMASK<ValidIPMask>"; "USETRACE" ->
"AGENTTRACE<Trace>" (+ "webcam<WebCam>" when WebCam is set); "Logoff<name>:<addr>" -> "LOGOFF=OKAY"
(or "LOGOFF=NoMatchingWinName"); "STATUS<n>" -> "STATUS OK"; "TD Agent Disconnect OK" -> hang up.

Transcript, one line per event: "[n] C> bytes" received from client connection n, "[n] S> bytes"
sent to it, "[n] -- text" events ([0] is the server itself). Bytes are exact: "\" is written "\\",
CR "\r", LF "\n", TAB "\t", other bytes outside printable ASCII "\xHH".
)";

}  // namespace tdacli::loginsim
