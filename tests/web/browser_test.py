"""The console page in headless Chromium, behind lighttpd with the shipped
demo configuration, the real program and the simulator. argv: CGI SIMULATOR"""
import os, re, sys, tempfile, unittest
from pathlib import Path
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
import webenv
from webenv import IP, PROGRAM

NET = "/configuration/network/"
# Served from another origin (another port): tries a write three ways.
ATTACK = """<!doctype html><title>elsewhere</title><img src="{url}&write={ip}&value=10.6.6.6">
<iframe name="sink"></iframe><form target="sink" method="post" action="{url}">
<input name="write" value="{ip}"><input name="value" value="10.6.6.6"></form>
<script>document.forms[0].submit(); fetch('{url}&write={ip}&value=10.6.6.6', {{mode: 'no-cors'}});</script>"""
FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-sync",
         "--disable-background-networking", "--disable-component-update", "--no-first-run", "--window-size=1000,950"]


class BrowserTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        webenv.isolate()
        cls.sim = webenv.simulator()
        cls.port, cls.elsewhere = webenv.free_port(), webenv.free_port()
        os.mkdir("/tmp/attack")
        Path("/tmp/attack/index.html").write_text(ATTACK.format(url=f"http://127.0.0.1:{cls.port}{PROGRAM}?attack", ip=IP))
        webenv.lighttpd("demo.conf", cls.port, [
            'server.modules += ("mod_accesslog")', 'accesslog.filename = "/tmp/access.log"',
            f'$SERVER["socket"] == "127.0.0.1:{cls.elsewhere}" {{ server.document-root = "/tmp/attack" }}'])
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for flag in FLAGS + ["--user-data-dir=" + tempfile.mkdtemp()]:
            options.add_argument(flag)
        cls.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()

    def settle(self):
        """The message line once the page is done with its request."""
        webenv.poll(lambda: self.driver.execute_script("return document.body.dataset.state"), "idle".__eq__)
        return self.driver.find_element(By.ID, "message").text

    def value(self, name):
        return self.driver.find_element(By.XPATH, f"//table[@id='params']//tr[td[1]='{NET}{name}']/td[2]")

    def write(self, name, value):
        self.driver.execute_script("document.getElementById('write-name').value = arguments[0];"
                                   "document.getElementById('write-value').value = arguments[1];"
                                   "document.querySelector('#write-form button').click()", name, value)
        return self.settle()

    def test_1_read(self):
        self.driver.get(f"http://127.0.0.1:{self.port}/console/")
        self.assertEqual(self.settle(), "Read 4 parameters.")
        self.driver.find_element(By.ID, "add-name").send_keys(NET + "hostname\n")
        self.assertEqual(self.settle(), "Read 5 parameters.")
        for name, value in [("ip_addr", "192.168.1.10"), ("broadcast_addr", "192.168.1.255"), ("hostname", "encoder")]:
            self.assertEqual(self.value(name).text, value)

    def test_2_another_origin_cannot_write(self):
        self.driver.get(f"http://127.0.0.1:{self.elsewhere}/")
        attempts = lambda: re.findall(r'"(\w+) /cgi-bin/tzr4417\.cgi\?attack[^"]*" (\d+)', Path("/tmp/access.log").read_text())
        self.assertEqual(sorted(webenv.poll(attempts, lambda found: len(found) >= 3)),
                         [("GET", "403"), ("GET", "403"), ("POST", "403")])
        self.assertNotIn("10.6.6.6", self.sim.transcript())

    def test_3_the_same_write_from_the_console(self):
        self.driver.get(f"http://127.0.0.1:{self.port}/console/")
        self.settle()
        self.assertIn("2 parameters changed", self.write(IP, "10.6.6.6"))
        broadcast = self.value("broadcast_addr")
        self.assertEqual((broadcast.text, broadcast.find_element(By.XPATH, "..").get_attribute("class")),
                         ("10.6.6.255", "changed"))
        self.driver.save_screenshot("console.png")
        saved = lambda: Path("/tmp/appliance.conf").read_text()
        self.assertIn("broadcast_addr 10.6.6.255", webenv.poll(saved, lambda text: "10.6.6.255" in text))

    def test_4_raw_control_byte(self):
        self.assertIn("raw control byte 0x01", self.write(NET + "hostname", "enc\x01oder"))
        self.assertEqual(self.value("hostname").text, r"enc\x01oder")

    def test_5_daemon_stopped(self):
        self.sim.stop()
        self.driver.find_element(By.ID, "read-button").click()
        self.assertIn("500 Internal Server Error", self.settle())


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
