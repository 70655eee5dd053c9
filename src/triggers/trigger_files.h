#pragma once
// The trigger-file login poller: logins and logoffs asked for by files that other programs of the
// suite drop into the application folder ("PerformLogin.TXT", "PerformLogoff.TXT"), the screen codec
// install asked for by "TSCC.bat", and the phone-home schedule of the web-service login.

namespace tdacli {

class Agent;

// One tick of the trigger-file timer (`tmrPollForLogin`): the timer is off for the whole pass and on
// again at its end.
void tmrPollForLogin_Timer(Agent& agent);
// The phone-home call for screen-grabber tasks: a task's send-frames job is written, then its receipt
// logged.
void PhoneHomeForScreenGrabberTasks(Agent& agent);
// Runs the codec installer "TSCC.msi" hidden, without waiting for it, and logs the size of its log.
void InstallCodec(Agent& agent);
// After a login that returned a usable live id: the live id file, the remote-control settings and,
// without peer-to-peer capability, the request that starts the remote-control program.
void ActOnLiveID(Agent& agent);

}  // namespace tdacli
