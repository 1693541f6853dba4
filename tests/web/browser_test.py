"""The console and foreign pages in headless Chromium at an address that is not loopback: the appliance snippet
on 192.0.2.10 in a network of the test's own, the password cached in the browser, third-party cookies allowed (the
worst case). argv: CGI SIMULATOR http|https (tzr4417.conf, or tzr4417-https.conf with foreign pages over HTTPS
too, the browser trusting the device certificate alone)"""
import base64, re, subprocess, sys, unittest
from pathlib import Path
from string import Template
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
import webenv
from webenv import IP, NET, PROGRAM, USER

HOME, MOVED, ELSEWHERE = "192.0.2.10", "192.0.2.11", "192.0.2.66"
SCHEME = sys.argv[3]
# Foreign pages: on another port of the appliance's address, at another address; over HTTPS with its key.
FOREIGN_TLS = f'ssl.engine = "enable" ssl.pemfile = "{webenv.CERT}" ssl.privkey = "{webenv.TLS}/key.pem"'
CONFIG, PORT, TLS = {"http": ("tzr4417.conf", 8081, ""), "https": ("tzr4417-https.conf", 8443, FOREIGN_TLS)}[SCHEME]
ORIGINS = {"port": f"{SCHEME}://{HOME}:{PORT}", "address": f"{SCHEME}://{ELSEWHERE}:{PORT}"}
# lighttpd logs what reached it, serves .html as HTML, and the foreign pages on PORT.
ACCESS = Path("/tmp/access.log")
SERVED = ['server.modules += ("mod_accesslog")', f'accesslog.filename = "|exec cat >{ACCESS}"']
SERVED += ['mimetype.assign = (".html" => "text/html")']
SERVED += [f'$SERVER["socket"] == ":{PORT}" {{ server.document-root = "/tmp/www/attack" {TLS} }}']
FORM = '<form %s action="$url"><input name=write value="$name"><input name=value value="$tag"></form>'
FORM += "<script>document.forms[0].submit()</script>"
LINK = '<a %s href="$url">go</a><script>document.links[0].click()</script>'
FETCH = '<script>fetch("$url", {%s})</script>'
# Each page tries to write $tag into $name at $url, the program's address.
VECTORS = {
    "img": '<img src="$url">',
    "GET form": FORM % "",
    "POST form": FORM % "method=post",
    "multipart form": FORM % "method=post enctype=multipart/form-data",
    "form into a new tab": FORM % "method=post target=_blank",
    "no-referrer page": "<meta name=referrer content=no-referrer>" + FORM % "method=post",
    "fetch": FETCH % 'mode: "no-cors", credentials: "include"',
    "fetch without credentials": FETCH % 'mode: "no-cors", credentials: "omit"',
    "fetch, no Referer": FETCH % 'mode: "no-cors", credentials: "include", referrerPolicy: "no-referrer"',
    "fetch with the header": FETCH % 'method: "POST", credentials: "include", headers: {"X-Tzr4417-Console": "1"}',
    "beacon": '<script>navigator.sendBeacon("$url")</script>',
    "navigation": '<script>location = "$url"</script>',
    "window.open": '<script>open("$url")</script>',
    "iframe": '<iframe src="$url"></iframe>',
    "prefetch link": '<link rel=prefetch href="$url">',
    "no-referrer link": LINK % "rel=noreferrer",
    "no-referrer link into a new tab": LINK % "rel=noreferrer target=_blank",
    "meta refresh": '<meta http-equiv=refresh content="0; url=$url">',
}
# A foreign name pointed at the appliance (DNS rebinding) is same-origin: it may send any header and a password.
BASIC = base64.b64encode(":".join(USER).encode()).decode()
REBIND = '<script>fetch("$path", {headers: {"X-Tzr4417-Console": "1", Authorization: "Basic %s"}})</script>' % BASIC
# A foreign page sends a window of its own to the program, bare or a read, 100 times with a wrong password in the
# address (which the browser then offers for the host); then opens 12 consoles with a wrong password in theirs.
POPUP = """<script>const popup = open("about:blank"); let sent = 0; const next = () => {
  popup.location = "$scheme://admin:wrong" + sent + "@$host$path" + (sent % 2 ? "?read=/probe-" + sent : "");
  if (++sent < 100) return setTimeout(next, 50);
  for (let i = 0; i < 12; i++) open("$scheme://admin:wrong" + i + "@$host/console/");
}; next();</script>"""
FLAGS = ["--window-size=1000,950", f"--host-resolver-rules=MAP encoder {HOME}, MAP rebind.example {HOME}"]
FLAGS += ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-component-update"]
# The device certificate alone is trusted, by its key (no certificate store).
SPKI = f"openssl x509 -in {webenv.CERT} -pubkey -noout | openssl pkey -pubin -outform der | openssl sha256 -binary"
PREFS = {"profile.cookie_controls_mode": 0, "profile.block_third_party_cookies": False}


class BrowserTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        webenv.isolate(HOME, ELSEWHERE)
        webenv.certificate("encoder", HOME)
        webenv.appliance(CONFIG, SERVED, bind="0.0.0.0")
        Path("/tmp/www/attack").mkdir()
        spki = base64.b64encode(subprocess.run(SPKI, shell=True, capture_output=True, check=True).stdout).decode()
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        list(map(options.add_argument, [*FLAGS, "--ignore-certificate-errors-spki-list=" + spki]))
        options.add_experimental_option("prefs", PREFS)
        cls.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        cls.addClassCleanup(cls.driver.quit)

    def setUp(self):
        self.sim = webenv.simulator()  # a daemon with the default tree for each test
        self.addCleanup(self.sim.proc.wait)  # gone before the next test's listens in its place
        self.addCleanup(self.sim.proc.terminate)
        self.login(HOME)

    def login(self, host):
        """Answers the password prompt once: the browser keeps it for the host. Over plain HTTP the program's
        address takes only what shows the appliance's cookie, which any of its pages gives."""
        self.driver.get(f"{SCHEME}://{host}/console/parameters.conf")
        self.driver.get(f"{SCHEME}://{':'.join(USER)}@{host}{PROGRAM}?read={IP}")
        self.assertIn(IP.replace("/", "\\/"), self.driver.page_source)

    def settle(self):
        """The console's message line once the page is done with its request."""
        webenv.poll(lambda: self.driver.execute_script("return document.body.dataset.state"), "idle".__eq__)
        return self.driver.find_element("id", "message").text

    def row(self, name):
        cell = self.driver.find_element(By.XPATH, f"//table[@id='params']//tr[td[1]='{NET}{name}']/td[2]")
        return cell.text, cell.find_element(By.XPATH, "..").get_attribute("class")

    def write(self, name, value):
        """A write from the console's form; its message."""
        fill = "['write-name', 'write-value'].forEach((id, i) => (document.getElementById(id).value = arguments[i]));"
        self.driver.execute_script(fill + "document.querySelector('#write-form button').click()", name, value)
        return self.settle()

    def test_console_reads_and_writes_and_follows_the_address(self):
        webenv.add_address(MOVED)  # the appliance's interface gets a second address
        self.login(MOVED)
        self.driver.get(f"{SCHEME}://{HOME}/console/")
        self.assertEqual(self.settle(), "Read 4 parameters.")
        self.driver.find_element(By.ID, "add-name").send_keys(NET + "hostname\n")
        self.assertEqual(self.settle(), "Read 5 parameters.")
        self.assertEqual([self.row("ip_addr"), self.row("hostname")], [("192.168.1.10", ""), ("encoder", "")])
        self.assertIn("2 parameters changed", self.write(IP, MOVED))
        self.assertEqual(self.row("broadcast_addr"), ("192.0.2.255", "changed"))
        self.driver.save_screenshot(f"console-{SCHEME}.png")
        self.driver.find_element(By.ID, "moved-link").click()
        shown = (self.settle(), self.driver.current_url)
        self.assertEqual(shown, ("Read 4 parameters.", f"{SCHEME}://{MOVED}/console/"))
        self.assertIn("1 parameter changed", self.write(NET + "hostname", "moved"))

    def test_console_says_what_happened(self):
        self.login("encoder")
        # A password in the console's address is never sent: the page comes back without it.
        self.driver.get(f"{SCHEME}://:wrong@encoder/console/")  # a password alone too
        shown = (self.settle(), self.driver.current_url)
        self.assertEqual(shown, ("Read 4 parameters.", f"{SCHEME}://encoder/console/"))
        for name, value, message, changes in [
            ("hostname", "studio", "1 parameter changed.", True),
            ("hostname", "studio", "It held that value already; nothing else changed.", False),
            ("host name", "x", "the write was refused, though the daemon answers reads", False),
            ("hostname", "enc\x01oder", "raw control byte 0x01", True),
            ("hostname", "x" * 17000, "413: the request is larger than the web server accepts.", False),
        ]:
            with self.subTest(value[:10]):
                self.assertIn(message, self.write(NET + name, value))
                self.assertEqual(self.driver.find_element(By.ID, "changes-box").is_displayed(), changes)
        reply = self.driver.find_element(By.ID, "reply")
        self.assertEqual((reply.text, reply.find_elements(By.TAG_NAME, "mark")), ("413 Payload Too Large", []))
        self.sim.stop()
        self.driver.find_element(By.ID, "read-button").click()
        self.assertIn("no text: the configuration daemon did not answer", self.settle())

    def test_a_foreign_page_spends_none_of_the_owners_checks(self):
        page = Template(POPUP).substitute(scheme=SCHEME, host=HOME, path=PROGRAM)
        Path("/tmp/www/attack/popup.html").write_text(page)
        self.driver.get(ORIGINS["address"] + "/popup.html")
        self.assertIn("probe-99", webenv.poll(ACCESS.read_text, lambda text: "probe-99" in text, 30))
        self.assertEqual(webenv.poll(lambda: ACCESS.read_text().count("POST /cgi-bin/"), (12).__le__, 30), 12)
        self.driver.switch_to.window(self.driver.window_handles[0])
        self.assertEqual(webenv.refused(), 0)
        self.driver.get(f"{SCHEME}://{HOME}/console/")
        self.assertEqual(self.settle(), "Read 4 parameters.")

    def test_foreign_pages_cannot_write(self):
        pages = [
            (f"{origin}: {name}", f"{url}/{number}-{origin}.html", page)
            for origin, url in ORIGINS.items()
            for number, (name, page) in enumerate(VECTORS.items())
        ]
        pages.append(("rebinding", f"{SCHEME}://rebind.example/attack/rebind.html", REBIND))
        main, seen, framed = self.driver.current_window_handle, {}, []

        def log(tag):
            return re.findall(rf'"(\w+) [^ "]*value={tag}\b[^"]*" (\d+)', ACCESS.read_text())

        for number, (name, url, page) in enumerate(pages):
            tag, target = f"foreign-{number}", f"{PROGRAM}?write={NET}hostname&value=foreign-{number}"
            Path("/tmp/www/attack", Path(url).name).write_text(
                Template(page).substitute(url=f"{SCHEME}://{HOME}{target}", path=target, name=NET + "hostname", tag=tag)
            )
            self.driver.get(url)
            seen[name] = webenv.poll(lambda: log(tag), bool)  # its request, with lighttpd's answer
            for handle in set(self.driver.window_handles) - {main}:
                self.driver.switch_to.window(handle)
                self.driver.close()
            self.driver.switch_to.window(main)
        # A decoy over the console, framed, would have the user click a write.
        Path("/tmp/www/attack/framed.html").write_text(f'<iframe src="{SCHEME}://{HOME}/console/"></iframe>')
        for url in ORIGINS.values():
            self.driver.get(url + "/framed.html")
            self.driver.switch_to.frame(0)
            framed += self.driver.find_elements(By.ID, "write-form")
            self.driver.switch_to.default_content()
        self.assertEqual([name for name, attempts in seen.items() if not attempts], [], f"no request: {seen}")
        self.assertEqual(framed, [])
        self.assertEqual(re.findall(r"put \S+ (foreign-\S*)\\r", self.sim.transcript()), [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
