// SPDX-License-Identifier: Apache-2.0
#include "help.h"

const char* const HELP = R"(Usage: pluginctl [OPTION]... VERB [ARGUMENT]...

Asks and steers pluginmgr, the plug-in manager that runs on this device.

Plug-ins:
  status                 run mode, cloud agent, and the plug-ins as a table
  check                  ask the cloud for newer versions now, then the table
                         (takes up to 20 seconds)
  update NAME            request the upgrade of a plug-in to the offered version
  update NAME --watch    the same, and follow it until it is installed or has
                         failed; joins an upgrade that is under way. When the
                         last upgrade has ended, the cloud is asked again first
  cancel NAME            stop the upgrade of a plug-in

Run mode and cloud account:
  mode on|off|ums|disable
                         change the run mode; where that restarts pluginmgr,
                         wait until it answers again
  login USER             log in at the accounts server and bind the device to
                         that account; asks for the password
  bind                   bind the device with an activation token, which is
                         asked for; empty: the one that the device holds
  unbind                 free the device from its account
  authcode               show the authorisation code and who was granted it
  authcode create|delete make a new code, or take it back

PBX service:
  pbx status             switch, registration, SIP account
  pbx qr                 fetch an activation code and draw it; after the scan
                         go on with 'pluginctl pbx check'
  pbx qr --wait SECONDS  the same, and ask the service until the code has been
                         scanned
  pbx check              finish the activation of a scanned code; asks for the
                         code's token, which 'pbx qr' tells
  pbx activate           activate with a verification code, which is asked for
  pbx config             fetch the SIP account. Its password is told this once,
                         the device does not keep it
  pbx extensions [START] extensions, from index START on

The agent's socket:
  report KEY=VALUE...    hand pluginmgr a report for the cloud. What the cloud
                         makes of it is not told
  loglevel N             0 (little) to 9 (all), until pluginmgr starts again
  device-code TEXT       the device code of 12 characters
  cloud-address          API server and device key of an activated device

Parameters:
  get ID                 read the value of a parameter: pluginctl get 80000
                         (with --json the whole answer that it comes in)
  set ID=VALUE...        change parameters, all in one request, for example:
                         pluginctl set 80014=ums.example.net
                         pluginctl set '80037=sip.example.net|10.0.0.5'
                         A value cannot contain '&'. Leave passwords and tokens
                         to login and bind: a command line can be seen by others
  raw 'QUERY'            send a query text as it is, print each answer:
                         pluginctl raw 'method=gw.config.get&id=80005'

Parameters to get:
  80000 run mode         80001 cloud agent       80014 UMS server
  80002 bound            80006 cloud account     80005 plug-ins
  80011 authorisation code, 80012 in use, 80013 granted to
  80031 PBX registered   80032 SIP registered    80033 SIP user
  80034 SIP server       80035 PBX service       80036 PBX extensions
  80037 user's SIP server                        80038 user's API server
Parameters to set:
  80000 on|off|ums|disable   80014 UMS server    80035 on|off
  80007 activation token     80003, 80004 account user name, password
  80002 true (bind) or false (unbind)
  80037, 80038 'DOMAIN|ADDRESS'

Options:
      --json             print pluginmgr's own JSON, or one JSON object
      --watch            with update: follow it to its end
      --wait SECONDS     with pbx qr: how long the user has for the scan
      --from FILE        with login, bind, pbx check and pbx activate: take the
                         secret from the first line of FILE, '-' for standard
                         input, instead of asking for it
      --timeout SECONDS  how long to wait for an answer (0.1 to 3600; by verb 10
                         to 60 seconds)
  -h, --help             this text
      --version          the version

Exit status:
  0  done
  1  pluginmgr answered with an error code, or the upgrade failed or is not
     possible, or nobody scanned the code in time, or a check did not end;
     or the output could not be written
  2  the command line is wrong, or a value cannot be sent
  3  nobody answered, or nobody answers such a request

pluginmgr listens on 127.0.0.1, UDP port 6907, and on the Unix socket
/var/run/pluginmgr_ctl: pluginctl works only on the device itself.
)";
