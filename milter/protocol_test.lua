-- The milter protocol of `smtpfm milter`, spoken by miltertest (Debian
-- miltertest): the changes sent back at the end of a message, the SMTP
-- replies, several messages on one connection, and the policy read again
-- on SIGHUP (a bad file keeping the old one).
--
--   miltertest -D smtpfm=BIN -D work=DIR -s protocol_test.lua

local socket = "unix:" .. work .. "/milter.sock"
local policy = work .. "/policy.toml"

local function write_policy(text)
  local f = assert(io.open(policy, "w"))
  f:write(text)
  f:close()
end

local function part(name, type)
  return "--b\r\nContent-Type: " .. type .. "\r\nContent-Disposition: attachment; filename=\"" .. name ..
         "\"\r\nContent-Transfer-Encoding: base64\r\n\r\nTVqQAAMAAAAEAAAA\r\n"
end

local body_text = "--b\r\nContent-Type: text/plain\r\n\r\nHello\r\n"

-- One message on `conn` (no RCPT: the milter asks for none); returns the
-- milter's reply at its end.
local function send(conn, headers, body)
  assert(mt.mailfrom(conn, "<a@example.org>") == nil, "mailfrom failed")
  for _, field in ipairs(headers) do
    assert(mt.header(conn, field[1], field[2]) == nil, "header failed")
  end
  assert(mt.eoh(conn) == nil, "eoh failed")
  assert(mt.bodystring(conn, body) == nil, "body failed")
  assert(mt.eom(conn) == nil, "eom failed")
  return mt.getreply(conn)
end

local function multipart(extra)
  -- miltertest puts the blank behind the colon itself.
  return {{"From", "a@example.org"}, {"Subject", "test"}, {"MIME-Version", "1.0"},
          {"Content-Type", "multipart/mixed; boundary=\"b\""}, extra}
end

-- miltertest says nothing of a failed assertion: the cases run under
-- pcall, which prints it.
local function cases()
write_policy([==[
[[rule]]
name = "exe"
file-name = "*.exe"
action = "disarm"
[[rule]]
name = "scripts"
file-name = "*.js"
action = "reject"
code = 554
status = "5.7.1"
text = "No scripts, 100% sure"
[[rule]]
name = "sealed"
encrypted = true
action = "quarantine"
]==])

mt.startfilter(smtpfm, "milter", "--policy", policy, "--socket", socket, "--log-stderr")
local conn = mt.connect(socket, 50, 0.1)
assert(conn ~= nil, "cannot connect to the milter")

-- Header values are taken with their leading blank, as written.
assert(mt.test_option(conn, SMFIP_HDR_LEADSPC), "no SMFIP_HDR_LEADSPC")

-- A clean message: only the verdict header is put in front, and a forged
-- one is deleted.
local reply = send(conn, multipart({"X-Smtpfm-Verdict", "accept"}), body_text .. "--b--\r\n")
assert(reply == SMFIR_CONTINUE or reply == SMFIR_ACCEPT, "clean: reply " .. reply)
assert(mt.eom_check(conn, MT_HDRINSERT, "X-Smtpfm-Verdict", " accept", 0), "clean: no verdict header")
assert(mt.eom_check(conn, MT_HDRDELETE, "X-Smtpfm-Verdict"), "clean: the forged verdict stays")
assert(not mt.eom_check(conn, MT_BODYCHANGE), "clean: body changed")

-- On the same connection: an executable is disarmed, the body sent anew
-- with a text/plain part in its place, named as it was with ".txt".
reply = send(conn, multipart(), part("setup.exe", "application/octet-stream") .. body_text .. "--b--\r\n")
assert(reply == SMFIR_CONTINUE or reply == SMFIR_ACCEPT, "exe: reply " .. reply)
assert(mt.eom_check(conn, MT_HDRINSERT, "X-Smtpfm-Verdict", " disarm; rules=exe", 0), "exe: verdict")
assert(mt.eom_check(conn, MT_BODYCHANGE,
                    "--b\r\nContent-Type: text/plain; charset=us-ascii; name=\"setup.exe.txt\"\r\n" ..
                    "Content-Disposition: attachment; filename=\"setup.exe.txt\"\r\n" ..
                    "Content-Transfer-Encoding: 7bit\r\n\r\n" ..
                    "This attachment was removed by the mail filter (rule exe).\r\n\r\n" .. body_text .. "--b--\r\n"),
       "exe: body not changed to the notice part")
assert(not mt.eom_check(conn, MT_HDRCHANGE), "exe: a header changed")

-- A file uuencoded in a plain text body: uue.so opens it for the rules.
reply = send(conn, {{"From", "a@example.org"}, {"Subject", "the old way"}},
             "Hello\r\nbegin 644 setup.exe\r\n#04)#\r\n`\r\nend\r\n")
assert(mt.eom_check(conn, MT_HDRINSERT, "X-Smtpfm-Verdict", " disarm; rules=exe", 0), "uuencoded exe: verdict")
assert(mt.eom_check(conn, MT_BODYCHANGE), "uuencoded exe: body not changed")

-- A script: refused with the policy's reply, '%' escaped for the server.
reply = send(conn, multipart(), part("run.js", "application/javascript") .. "--b--\r\n")
assert(reply == SMFIR_REPLYCODE, "script: reply " .. reply)
assert(mt.eom_check(conn, MT_SMTPREPLY, "554", "5.7.1", "No scripts, 100%% sure"), "script: reply text")

-- An encrypted part: quarantined.
reply = send(conn, multipart(), part("m.p7m", "application/pkcs7-mime; smime-type=enveloped-data") .. "--b--\r\n")
assert(mt.eom_check(conn, MT_QUARANTINE), "sealed: not quarantined")

-- SIGHUP with a bad policy keeps the old one; with a good one, it rules.
write_policy("[[rule]]\naction = \"nonsense\"\n")
mt.signal(1)
mt.sleep(0.5)
reply = send(conn, multipart(), part("run.js", "application/javascript") .. "--b--\r\n")
assert(reply == SMFIR_REPLYCODE, "bad reload: reply " .. reply)
assert(mt.eom_check(conn, MT_SMTPREPLY, "554", "5.7.1", "No scripts, 100%% sure"), "bad reload: old policy gone")
write_policy("[[rule]]\nfile-name = \"*.js\"\naction = \"tempfail\"\ncode = 452\n")
mt.signal(1)
mt.sleep(0.5)
reply = send(conn, multipart(), part("run.js", "application/javascript") .. "--b--\r\n")
assert(reply == SMFIR_REPLYCODE, "reload: reply " .. reply)
assert(mt.eom_check(conn, MT_SMTPREPLY, "452", "4.7.1", "Message deferred by policy, try again later"),
       "reload: new policy not in force")

mt.disconnect(conn)
end

local ok, failure = pcall(cases)
if not ok then
  print("FAILED: " .. tostring(failure))
  error(failure)
end
print("milter protocol: 7 cases passed")
