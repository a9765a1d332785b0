#!/usr/bin/env python3
"""NETCONF end to end: pbr-mgmtd and pbr-app (memory backend) as processes; a raw RFC 6242
client over netconf.sock and ncclient over SSH. Usage: netconf_e2e_test.py BUILD_DIR"""
import json, os, pwd, re, shutil, socket, subprocess, sys, tempfile, time, unittest

BUILD = os.path.abspath(sys.argv.pop(1))
NS = 'xmlns="urn:pbr-element:params:xml:ns:yang:pbr"'
NC = 'xmlns:nc="urn:ietf:params:xml:ns:netconf:base:1.0"'


class Raw:
    """NETCONF 1.1 over the UNIX socket: hello, then chunked framing."""

    def __init__(self, path):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(20)
        self.sock.connect(path)
        self.buf, self.mid = b"", 0
        self.sock.sendall(b'<hello xmlns="urn:ietf:params:xml:ns:netconf:base:1.0"><capabilities>'
                          b'<capability>urn:ietf:params:netconf:base:1.1</capability>'
                          b'</capabilities></hello>]]>]]>')
        while b"]]>]]>" not in self.buf:
            self.buf += self.sock.recv(65536)
        self.hello, self.buf = self.buf.split(b"]]>]]>", 1)
        self.id = int(re.search(rb"<session-id>(\d+)<", self.hello).group(1))
        self.notifications = []

    def message(self):
        out = b""
        while True:
            m = re.match(rb"\n#(\d+)\n", self.buf)
            if m and len(self.buf) >= m.end() + int(m.group(1)):
                end = m.end() + int(m.group(1))
                out, self.buf = out + self.buf[m.end():end], self.buf[end:]
            elif self.buf.startswith(b"\n##\n"):
                self.buf = self.buf[4:]
                return out.decode()
            else:
                data = self.sock.recv(1 << 20)
                if not data:
                    raise EOFError("session closed")
                self.buf += data

    def rpc(self, body):
        self.mid += 1
        msg = (f'<rpc message-id="{self.mid}" xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">'
               f'{body}</rpc>').encode()
        self.sock.sendall(b"\n#%d\n%s\n##\n" % (len(msg), msg))
        while True:
            out = self.message()
            if "<notification" not in out[:200]:
                return out
            self.notifications.append(out)

    def notification(self, pattern="<notification"):
        """The next notification that `pattern` finds; those before it are dropped."""
        while True:
            out = self.notifications.pop(0) if self.notifications else self.message()
            if re.search(pattern, out):
                return out

    def close(self):
        self.sock.close()


def rule(rid, priority, hop="192.0.2.1", op=""):
    return (f'<router {NS} {NC}><pbr {op}><id>{rid}</id><rule><priority>{priority}</priority>'
            f'<action><next-hop><ip>{hop}</ip></next-hop></action></rule></pbr></router>')


def edit(target, config, extra=""):
    return (f"<edit-config><target><{target}/></target>{extra}<config>{config}</config>"
            "</edit-config>")


RUNNING = "<get-config><source><running/></source></get-config>"
SUBSCRIBE = '<create-subscription xmlns="urn:ietf:params:xml:ns:netconf:notification:1.0"/>'
LOCK = "<lock><target><running/></target></lock>"
STATE = ('<get><filter type="subtree"><netconf-state xmlns="urn:ietf:params:xml:ns:yang:'
         'ietf-netconf-monitoring"><datastores/><sessions/></netconf-state></filter></get>')


class NetconfTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp()
        env = dict(os.environ, PBR_ELEMENT_RUNTIME_DIR=cls.work + "/run",
                   PBR_ELEMENT_STATE_DIR=cls.work + "/state", PBR_ELEMENT_BACKEND="memory",
                   PBR_ELEMENT_TRACE="pbr-app=10")
        os.makedirs(env["PBR_ELEMENT_RUNTIME_DIR"])
        os.makedirs(env["PBR_ELEMENT_STATE_DIR"])
        key = cls.work + "/id_ed25519"
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key], check=True)
        shutil.copy(key + ".pub", cls.work + "/authorized_keys")
        cls.port = 20000 + os.getpid() % 20000
        env.update(PBR_ELEMENT_NETCONF_SSH=f"127.0.0.1:{cls.port}",
                   PBR_ELEMENT_NETCONF_AUTHORIZED_KEYS=cls.work + "/authorized_keys")
        cls.env, cls.key = env, key
        cls.mgmtd = subprocess.Popen([BUILD + "/element/mgmt/pbr-mgmtd"],
                                     env=dict(env, PBR_ELEMENT_LOG=cls.work + "/mgmtd.log"))
        cls.app = None
        try:
            cls.wait_for(lambda: os.path.exists(env["PBR_ELEMENT_RUNTIME_DIR"] + "/netconf.sock"))
            cls.app = subprocess.Popen([BUILD + "/app/pbr-app"],
                                       env=dict(env, PBR_ELEMENT_LOG=cls.work + "/app.log"))
            cls.wait_for(lambda: "attached to the management server" in cls.app_log())
        except BaseException:
            cls.tearDownClass()
            raise
        cls.sock = env["PBR_ELEMENT_RUNTIME_DIR"] + "/netconf.sock"

    @classmethod
    def tearDownClass(cls):
        for p in (cls.app, cls.mgmtd):
            if p is None:
                continue
            p.terminate()
            p.wait(timeout=20)
        shutil.rmtree(cls.work)

    @staticmethod
    def wait_for(check, seconds=10):
        deadline = time.time() + seconds
        while not check():
            if time.time() > deadline:
                raise AssertionError("timed out")
            time.sleep(0.05)

    @classmethod
    def app_log(cls):
        try:
            with open(cls.work + "/app.log", errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""

    def cli(self, *args, stdin=None):
        return subprocess.run([BUILD + "/element/cli/pbr-cli", "--timeout", "10", *args],
                              env=self.env, input=stdin, capture_output=True, text=True)

    def setUp(self):
        self.nc = Raw(self.sock)
        self.assertIn("ok", self.nc.rpc(edit("running", f"<router {NS}/>",
                                             '<default-operation>replace</default-operation>')))

    def tearDown(self):
        self.nc.close()

    def test_candidate_commit_reaches_the_backend_and_the_view(self):
        self.assertIn("<ok/>", self.nc.rpc(edit("candidate", rule(5, 50))))
        self.assertNotIn("<id>5</id>", self.nc.rpc(RUNNING))
        self.assertIn("<ok/>", self.nc.rpc("<commit/>"))
        self.wait_for(lambda: "memory backend: rule 5 set" in self.app_log())
        self.assertIn("<priority>50</priority>", self.nc.rpc(RUNNING))
        get = self.nc.rpc("<get/>")
        self.assertRegex(get, r"<pbr-status><id>5</id>.*<hw-status>programmed</hw-status>")
        history = self.cli("show", "commits").stdout
        self.assertRegex(history, r"netconf")
        # A subtree filter returns only what it selects.
        sub = self.nc.rpc('<get-config><source><running/></source><filter type="subtree">'
                          f'<router {NS}><pbr><id>5</id><rule><priority/></rule></pbr></router>'
                          "</filter></get-config>")
        self.assertIn("<priority>50</priority>", sub)
        self.assertNotIn("next-hop", sub)
        # A filtered get holds the configuration and the view under the one <router>.
        both = self.nc.rpc(f'<get><filter type="subtree"><router {NS}/></filter></get>')
        self.assertRegex(both, r"<router [^>]*><pbr><id>5</id>.*</pbr><pbr-status><id>5</id>"
                               r".*</pbr-status></router>")
        self.assertNotIn("netconf-state", both)

    def test_edits_read_the_entries_they_name_from_the_candidate_view(self):
        self.nc.rpc(edit("running", rule(1, 10, hop="192.0.2.7")))
        self.nc.rpc(edit("candidate", rule(2, 20)))
        self.nc.rpc(edit("candidate", f"<router {NS}><pbr><id>1</id><rule>"
                         "<description>one</description></rule></pbr></router>"))
        # Later edits see the candidate's own entries, not only running's.
        self.assertIn("data-exists", self.nc.rpc(edit("candidate", rule(2, 21, op='nc:operation="create"'))))
        self.assertIn("<ok/>", self.nc.rpc(edit("candidate", f"<router {NS}><pbr><id>2</id><rule>"
                                                "<priority>22</priority></rule></pbr></router>")))
        self.assertIn("<ok/>", self.nc.rpc(edit("candidate", rule(3, 30))))
        self.assertIn("<ok/>", self.nc.rpc(edit("candidate", rule(3, 30, op='nc:operation="delete"'))))
        candidate = self.nc.rpc("<get-config><source><candidate/></source></get-config>")
        self.assertIn("<priority>22</priority>", candidate)
        self.assertNotIn("<id>3</id>", candidate)
        self.assertIn("<ok/>", self.nc.rpc("<commit/>"))
        running = self.nc.rpc(RUNNING)
        # The merge into rule 1 kept what it did not name.
        self.assertRegex(running, r"<id>1</id><rule><priority>10</priority><description>one"
                                  r"</description>.*<ip>192.0.2.7</ip>")
        self.assertIn("<priority>22</priority>", running)
        self.assertNotIn("<id>3</id>", running)
        # A node of one case of a choice deletes those of the other cases.
        source = "<match><source><ipv4-address><{0}><ip>{1}</ip></{0}></ipv4-address></source></match>"
        for case, ip in (("no-mask", "10.0.0.1"), ("mask", "10.0.0.0/8")):
            self.assertIn("<ok/>", self.nc.rpc(edit("running", f"<router {NS}><pbr><id>1</id><rule>"
                                                    + source.format(case, ip) + "</rule></pbr></router>")))
        self.assertIn(source.format("mask", "10.0.0.0/8"), self.nc.rpc(RUNNING))

    def test_refusals_carry_tag_and_path_and_change_nothing(self):
        self.nc.rpc(edit("running", rule(1, 10)))
        before = self.nc.rpc(RUNNING)
        cases = [
            (edit("running", rule(2, "abc")), "invalid-value", "pbr[id='2']/rule/priority"),
            (edit("running", f"<router {NS}><pbr><id>3</id><rule><description>x</description>"
                  "</rule></pbr></router>"), "invalid-value", "rule/priority"),
            (edit("candidate", rule(9, 1, op='nc:operation="delete"')), "data-missing",
             "pbr[id='9']"),
            (edit("running", rule(1, 10, op='nc:operation="create"')), "data-exists", ""),
            # an unknown node and state data in the content are refused by name
            (edit("running", f"<router {NS}><pbr><id>4</id><bogus>1</bogus></pbr></router>"),
             "invalid-value", "bogus"),
            (edit("candidate", f"<router {NS}><pbr-status><id>5</id></pbr-status></router>"),
             "invalid-value", "pbr-status"),
            # an entry given twice, whether it exists or not
            *((edit("running", f"<router {NS}>" + 2 * f"<pbr><id>{i}</id><rule><priority>{i}"
                    "</priority></rule></pbr>" + "</router>"), "invalid-value",
               f"<error-path>/pbr:router/pbr[id='{i}']</error-path>") for i in (1, 6)),
        ]
        for body, tag, path in cases:
            with self.subTest(body=body):
                reply = self.nc.rpc(body)
                self.assertIn(tag, reply)
                self.assertIn(path, reply)
        self.assertEqual(before.split(">", 1)[1], self.nc.rpc(RUNNING).split(">", 1)[1])

    def test_locks_are_shared_with_the_cli(self):
        self.assertIn("<ok/>", self.nc.rpc(LOCK))
        refused = self.cli("set", "/router/pbr{8}/rule/priority", "8")
        self.assertNotEqual(refused.returncode, 0)
        self.assertIn(f"locked by NETCONF session {self.nc.id} (user ", refused.stderr)
        # Another session is refused the lock (naming the holder) and its edits; the lock ends
        # with its session.
        other = Raw(self.sock)
        denied = other.rpc(LOCK)
        self.assertIn("lock-denied", denied)
        self.assertIn(f"<session-id>{self.nc.id}</session-id>", denied)
        self.assertIn("in-use", other.rpc(edit("running", rule(8, 8))))
        # An rpc no module defines is refused by the library and counted as a bad rpc.
        self.assertIn("<rpc-error>", other.rpc("<frobnicate/>"))
        state = other.rpc(STATE)
        self.assertRegex(state, rf"<session-id>{other.id}</session-id>.*?<in-bad-rpcs>1<")
        self.assertRegex(state, rf"<name>running</name><locks><global-lock><locked-by-session>"
                                rf"{self.nc.id}</locked-by-session><locked-time>")
        for sid in (self.nc.id, other.id):
            self.assertRegex(state, rf"<session-id>{sid}</session-id><transport[^>]*>"
                                    r"\w+:unix-socket</transport><username>")
        self.assertNotIn("<schemas>", state)
        self.nc.close()
        self.wait_for(lambda: "<ok/>" in other.rpc(edit("running", rule(8, 8))))
        other.close()
        self.nc = Raw(self.sock)

    def test_a_cli_lock_refuses_netconf_naming_its_holder(self):
        shell = subprocess.Popen([BUILD + "/element/cli/pbr-cli"], env=self.env, text=True,
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            shell.stdin.write("lock running\n")
            shell.stdin.flush()
            self.assertEqual("locked", shell.stdout.readline().strip())
            # The shell is a session of netconf-state, past every NETCONF session id, and the
            # lock and every refusal name it by that id (session-id 0 where NETCONF wants it).
            state = self.nc.rpc(STATE)
            cli = re.search(r"<session><session-id>(\d+)</session-id><transport[^>]*>\w+:cli<"
                            r"/transport><username>\w+</username><login-time>[^<]+</login-time>"
                            r"<in-rpcs>1</in-rpcs>.*?<process-id[^>]*>%d<" % shell.pid, state)
            self.assertIsNotNone(cli, state)
            cli = int(cli.group(1))
            self.assertGreaterEqual(cli, 1 << 31)
            self.assertRegex(state, r"<locked-by-session>0</locked-by-session><locked-time>[^<]+"
                                    rf"</locked-time><locked-by-management-session[^>]*>{cli}<.*"
                                    r"<locked-by-client[^>]*>cli</locked-by-client>")
            self.nc.rpc(edit("candidate", rule(13, 13)))
            cases = [(LOCK, "lock-denied"), (edit("running", rule(13, 13)), "in-use"),
                     ("<commit/>", "in-use")]
            for body, tag in cases:
                with self.subTest(body=body):
                    reply = self.nc.rpc(body)
                    self.assertIn(tag, reply)
                    self.assertRegex(reply, rf"locked by session {cli} \(user \w+, cli\)")
            self.assertIn("<session-id>0</session-id>", self.nc.rpc(LOCK))
            # kill-session by that id ends the shell's session, and its lock with it.
            kill = f"<kill-session><session-id>{cli}</session-id></kill-session>"
            self.assertIn("<ok/>", self.nc.rpc(kill))
            self.assertIn("invalid-value", self.nc.rpc(kill))
            self.assertIn("<ok/>", self.nc.rpc(LOCK))
        finally:
            shell.stdin.close()
            shell.wait(timeout=10)
            shell.stdout.close()
        self.wait_for(lambda: f"<session-id>{cli}<" not in self.nc.rpc(STATE))
        self.nc.rpc("<discard-changes/>")

    def test_sessions_starting_and_ending_are_notified(self):
        sub = Raw(self.sock)
        self.assertIn("<ok/>", sub.rpc(SUBSCRIBE))
        ends = [(lambda s: s.rpc("<close-session/>"), "closed", ""),
                (lambda s: self.nc.rpc(f"<kill-session><session-id>{s.id}</session-id>"
                                       "</kill-session>"), "killed",
                 f"<killed-by>{self.nc.id}</killed-by>"),
                (lambda s: s.close(), "dropped", "")]
        for end, reason, killer in ends:
            with self.subTest(reason=reason):
                other = Raw(self.sock)
                mine = rf"<session-id>{other.id}</session-id>"
                self.assertRegex(sub.notification("netconf-session-start.*" + mine),
                                 rf"<username>\w+</username>{mine}</netconf-session-start>")
                end(other)
                self.assertRegex(sub.notification("netconf-session-end.*" + mine),
                                 rf"{mine}{killer}<termination-reason>{reason}<")
                other.close()
        sub.close()

    def test_commits_of_every_client_are_notified(self):
        sub = Raw(self.sock)
        self.assertIn("operation-not-supported", sub.rpc(SUBSCRIBE.replace(
            "/>", "><startTime>2020-01-01T00:00:00Z</startTime></create-subscription>")))
        self.assertIn("<ok/>", sub.rpc(SUBSCRIBE))
        # A subtree filter on the notification's content: pbr-cli's commits only.
        cli_only = Raw(self.sock)
        self.assertIn("<ok/>", cli_only.rpc(SUBSCRIBE.replace("/>", (
            '><filter type="subtree"><netconf-config-change xmlns="urn:ietf:params:xml:ns:yang:'
            'ietf-netconf-notifications"><changed-by><session-id>0</session-id></changed-by>'
            "</netconf-config-change></filter></create-subscription>"))))
        target = r"<target[^>]*>/\w+:router/\w+:pbr\[\w+:id='%d'\]</target>"
        commits = [
            (lambda: self.cli("set", "/router/pbr{14}/rule/priority", "14"),
             r"<username>\w+</username><session-id>0</session-id>", 14, "create"),
            (lambda: self.nc.rpc(edit("running", rule(14, 15))),
             rf"<username>\w+</username><session-id>{self.nc.id}</session-id>", 14, "replace"),
            (lambda: (self.nc.rpc(edit("candidate", rule(14, 0, op='nc:operation="delete"'))),
                      self.nc.rpc("<commit/>")),
             rf"<session-id>{self.nc.id}</session-id>", 14, "delete"),
        ]
        for commit, by, rid, op in commits:
            with self.subTest(op=op):
                commit()
                notif = sub.notification("netconf-config-change")
                self.assertIn("<netconf-config-change", notif)
                self.assertRegex(notif, by)
                self.assertIn("<datastore>running</datastore>", notif)
                self.assertRegex(notif, (target % rid) + rf"<operation>{op}</operation>")
        # The server's own undoing of an unconfirmed commit.
        self.nc.rpc(edit("candidate", rule(15, 15)))
        self.nc.rpc("<commit><confirmed/><confirm-timeout>1</confirm-timeout></commit>")
        self.assertIn("<session-id>", sub.notification("netconf-config-change"))
        self.assertRegex(sub.notification("netconf-config-change"),
                         r"<changed-by><server/></changed-by>.*<operation>delete</operation>")
        self.cli("set", "/router/pbr{17}/rule/priority", "17")
        # The filter keeps out the other sessions' starts and ends too.
        self.assertRegex(cli_only.notification(), target % 14)
        self.assertRegex(cli_only.notification(), target % 17)
        sub.close()
        cli_only.close()

    def test_persist_id_must_match_the_pending_confirmed_commit(self):
        other = Raw(self.sock)
        self.nc.rpc(edit("candidate", rule(16, 16)))
        self.assertIn("<ok/>", self.nc.rpc("<commit><confirmed/><persist>p1</persist></commit>"))
        cases = [
            (self.nc, "<commit><persist-id>p2</persist-id></commit>", "invalid-value"),
            (other, "<commit/>", "only its persist id confirms it"),
            (other, "<commit><persist-id>p1</persist-id></commit>", "<ok/>"),
            (other, "<commit><persist-id>p1</persist-id></commit>", "no confirmed commit"),
        ]
        for session, body, expected in cases:
            with self.subTest(body=body):
                self.assertIn(expected, session.rpc(body))
        other.close()
        # The history names the client that cancelled a confirmed commit.
        self.nc.rpc(edit("candidate", rule(18, 18)))
        self.nc.rpc("<commit><confirmed/></commit>")
        self.assertIn("<ok/>", self.nc.rpc("<cancel-commit/>"))
        undo = json.loads(self.cli("show", "commits", "--json").stdout)[-1]
        self.assertEqual(undo["client"], "netconf")
        self.assertRegex(undo["comment"], r"^undo of commit \d+: aborted$")

    def test_unconfirmed_commit_is_undone(self):
        self.nc.rpc(edit("running", rule(4, 40)))
        confirmed = "<commit><confirmed/><confirm-timeout>1</confirm-timeout></commit>"
        # A confirmed commit of nothing opens the window too: what follows in it is undone.
        self.assertIn("<ok/>", self.nc.rpc(confirmed))
        self.nc.rpc(edit("running", rule(4, 41)))
        self.assertIn("<priority>41</priority>", self.nc.rpc(RUNNING))
        self.wait_for(lambda: "<priority>40</priority>" in self.nc.rpc(RUNNING))

    def test_get_schema_and_stalled_peer(self):
        schema = self.nc.rpc('<get-schema xmlns="urn:ietf:params:xml:ns:yang:'
                             'ietf-netconf-monitoring"><identifier>pbr</identifier></get-schema>')
        self.assertIn("module pbr {", schema)
        stalled = Raw(self.sock)
        stalled.sock.sendall(b"\n#500\n<rpc message-id=")  # and nothing more
        start = time.time()
        self.assertEqual(self.cli("set", "/router/pbr{6}/rule/priority", "6").returncode, 0)
        self.assertLess(time.time() - start, 1.0)
        stalled.close()

    def test_ncclient_over_ssh(self):
        from ncclient import manager
        import ncclient.transport.ssh
        ncclient.transport.ssh.TICK = 0.005
        sub = Raw(self.sock)
        self.assertIn("<ok/>", sub.rpc(SUBSCRIBE))
        with manager.connect_ssh("127.0.0.1", self.port, username=pwd.getpwuid(os.geteuid()).pw_name,
                                 key_filename=self.key, hostkey_verify=False, allow_agent=False,
                                 look_for_keys=False, timeout=20) as m:
            mine = rf"<session-id>{m.session_id}</session-id>"
            self.assertRegex(sub.notification("netconf-session-start.*" + mine),
                             mine + r"<source-host>127.0.0.1</source-host>")
            m.edit_config(target="candidate", config=f'<config xmlns="urn:ietf:params:xml:ns:netconf:base:1.0">'
                          f"{rule(12, 120)}</config>")
            m.commit()
            self.assertIn("<priority>120</priority>", m.get_config(source="running").xml)
            self.assertIn("module pbr", m.get_schema("pbr").data)
        self.assertRegex(sub.notification("netconf-session-end.*" + mine),
                         mine + r"<source-host>127.0.0.1</source-host><termination-reason>closed<")
        sub.close()


if __name__ == "__main__":
    unittest.main(verbosity=2)
