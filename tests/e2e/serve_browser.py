"""The web console's page in headless Chromium (Debian's chromium and chromium-driver, driven by
python3-selenium) against the floor of serve_linux.sh: the token URL, every row, a filter, drift
only, a seat with its component report, a guarded change from preview to apply, an export, the Audit
page, and a hostile computer name shown as text with nothing run. Screenshots go to --shots."""
import argparse
import json
import tempfile

from selenium import webdriver
from selenium.common.exceptions import NoAlertPresentException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import Select, WebDriverWait

from serve_lib import Console, Failed, Floor, check, main, same, step


def browser(profile):
    o = webdriver.ChromeOptions()
    o.binary_location = "/usr/bin/chromium"
    # No sandbox (tests may run as root), no GPU, and nothing that reaches out to the internet.
    for flag in ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                 "--disable-background-networking", "--disable-component-update", "--disable-sync",
                 "--disable-dev-shm-usage", "--window-size=1600,1000", f"--user-data-dir={profile}"]:
        o.add_argument(flag)
    return webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=o)


def run():
    a = argparse.ArgumentParser()
    a.add_argument("--url")
    a.add_argument("--work")
    a.add_argument("--shots")
    args = a.parse_args()
    c = Console(args.url)
    f = Floor(args.work)
    n = f.n
    c.wait_scan()
    d = browser(tempfile.mkdtemp(dir=args.work))
    wait = WebDriverWait(d, 60)
    shot = lambda name: d.save_screenshot(f"{args.shots}/{name}.png")

    def click_row(host, inside):
        # A row's control, brought to the middle of the window first: where the browser left the page
        # scrolled, the row may lie under the table's sticky header, which would take the click.
        e = d.find_element(By.CSS_SELECTOR, f"#hosts tr[data-host='{host}'] {inside}")
        d.execute_script("arguments[0].scrollIntoView({block: 'center'})", e)
        e.click()

    def shown_hosts():
        # The rows in the page once the filter's pass has ended.
        wait.until(lambda _: d.execute_script("return !document.getElementById('hosts').dataset.pending"))
        return d.execute_script(
            "return [...document.querySelectorAll('#hosts tbody tr')].filter(r => !r.hidden).map(r => r.dataset.host)")

    try:
        step("the token URL: a session, the floor, every row")
        d.get(args.url)
        wait.until(lambda _: d.execute_script("return document.body.dataset.ready === '1'"))
        same(d.current_url, c.origin() + "/", "the address after the token was traded")
        same(sorted(shown_hosts()), sorted(f.order()), "the rows shown")
        counts = {li.get_attribute("data-state"): li.find_element(By.CLASS_NAME, "n").text
                  for li in d.find_elements(By.CSS_SELECTOR, "#counts li")}
        same(counts, {"ok": str(n + 1), "refused": "1", "timeout": "2", "closed": "1", "not-an-agent": "1",
                      "error": "1"}, "the counts per state")
        shot("floor")

        step("a sort by any column, both ways")
        d.find_element(By.CSS_SELECTOR, "#hosts th[data-key='ext']").click()
        exts = lambda: [tr.find_elements(By.TAG_NAME, "td")[6].text for tr in
                        d.find_elements(By.CSS_SELECTOR, "#hosts tbody tr")]
        wait.until(lambda _: not d.execute_script("return document.getElementById('hosts').dataset.pending"))
        same(exts(), sorted(exts()), "the rows sorted by Ext")
        d.find_element(By.CSS_SELECTOR, "#hosts th[data-key='ext']").click()
        wait.until(lambda _: not d.execute_script("return document.getElementById('hosts').dataset.pending"))
        same(exts(), sorted(exts(), reverse=True), "the rows sorted by Ext, the other way")
        d.find_element(By.CSS_SELECTOR, "#hosts th[data-key='host']").click()

        step("Refresh: a scan with its progress bar, then the new floor")
        scans = c.json("GET", "/api/scan")["scans"]
        d.find_element(By.ID, "refresh").click()
        # The silent and trickling hosts hold the scan for their 2-second time-out.
        wait.until(lambda _: d.find_element(By.ID, "progress").is_displayed())
        check(d.find_element(By.ID, "refresh").get_attribute("disabled") is not None, "Refresh while a scan runs")
        shot("scanning")
        wait.until(lambda _: not d.find_element(By.ID, "progress").is_displayed())
        same(c.json("GET", "/api/scan")["scans"], scans + 1, "the scans after a Refresh")
        wait.until(lambda _: d.execute_script("return document.body.dataset.scans") == str(scans + 1))
        same(sorted(shown_hosts()), sorted(f.order()), "the rows after the new scan")

        step("the hostile computer name is text, and nothing ran")
        row = d.find_element(By.CSS_SELECTOR, f"#hosts tr[data-host='{f.peer('hostile')}']")
        cells = [td.text for td in row.find_elements(By.TAG_NAME, "td")]
        same(cells[4], "<img src=x onerror=alert(1)>", "the hostile row's computer cell")
        same(d.find_elements(By.CSS_SELECTOR, "#hosts img, #hosts script, #hosts b, #hosts i"), [],
             "markup elements in the table")
        try:
            alert = d.switch_to.alert
            raise Failed(f"an alert ran: {alert.text}")
        except NoAlertPresentException:
            pass

        step("a control character an agent sent is shown escaped, as fleet shows it")
        cells = [td.text for td in d.find_elements(By.CSS_SELECTOR, f"#hosts tr[data-host='{f.key(6)}'] td")]
        same((f.value(6, "CurrentUser"), cells[5]), ("esc\x1b[31m", "esc\\x1B[31m"), "agent 6's user cell")

        step("a filter")
        box = d.find_element(By.ID, "filter")
        box.send_keys("user1")
        expected = sorted(f.key(i) for i in range(1, n + 1) if f.value(i, "CurrentUser").startswith("user1"))
        same(sorted(shown_hosts()), expected, "the rows of the filter \"user1\"")
        same(d.find_element(By.ID, "shown").text, f"{len(expected)} of {len(f.order())} seats shown", "the count shown")
        shot("filter")
        box.clear()
        d.execute_script("document.getElementById('filter').dispatchEvent(new Event('input'))")

        step("drift only")
        d.find_element(By.ID, "drift-only").click()
        same(sorted(shown_hosts()), sorted([f.key(3), f.key(8), f.key(9), f.key(n), f.peer("hostile")]),
             "the drifting seats")
        drift_cells = d.find_elements(By.CSS_SELECTOR, f"#hosts tr[data-host='{f.key(3)}'] td.drift")
        same([td.text for td in drift_cells], ["10.7.7.7"], "seat 3's marked cell")
        shot("drift")
        d.find_element(By.ID, "drift-only").click()

        step("an export of the current view")
        Select(d.find_element(By.ID, "state-filter")).select_by_value("refused")
        csv = d.execute_async_script("""const done = arguments[0];
            fetch(document.getElementById('export-csv').href).then(r => r.text()).then(done);""")
        same(csv.split("\r\n")[1:], [f"127.0.0.1,{f.peers['dead']},refused,,,,,,,", ""], "the CSV of the refused hosts")
        Select(d.find_element(By.ID, "state-filter")).select_by_value("")

        step("a seat with its component report")
        click_row(f.key(8), "a")
        wait.until(lambda _: d.find_elements(By.CSS_SELECTOR, "#seat-components tbody tr"))
        check(d.find_element(By.ID, "floor").get_attribute("hidden") is not None, "the floor hidden in the seat view")
        same(d.find_element(By.ID, "seat-title").text, f.key(8), "the seat's title")
        first = [td.text for td in d.find_elements(By.CSS_SELECTOR, "#seat-components tbody tr:first-child td")]
        same(first, ["Agent Login Service", "3, 0, 0, 7", "RUNNING"], "the seat's first component")
        shot("seat")

        step("a guarded change: preview, then apply exactly that")
        d.get(c.origin() + "/#")
        wait.until(lambda _: d.execute_script("return document.body.dataset.ready === '1'"))
        before = {i: f.read_settings(i) for i in f.agents}
        for i in (4, 5):
            click_row(f.key(i), "input[type=checkbox]")
        d.find_element(By.CSS_SELECTOR, "#change summary").click()
        Select(d.find_element(By.ID, "change-setting")).select_by_value("ext")
        d.find_element(By.ID, "change-value").send_keys("7777")
        apply = d.find_element(By.ID, "change-apply")
        check(not apply.is_enabled(), "Apply before a preview")
        d.find_element(By.ID, "change-preview").click()
        wait.until(lambda _: apply.is_enabled())
        rows = [[td.text for td in tr.find_elements(By.TAG_NAME, "td")]
                for tr in d.find_elements(By.CSS_SELECTOR, "#change-rows tbody tr")]
        # In the order the floor shows the seats (here sorted by host).
        same(sorted(rows), sorted([f.key(i), "ok", "ext", f.value(i, "Ext"), "7777", "would change"] for i in (4, 5)),
             "the preview")
        same({i: f.read_settings(i) for i in f.agents}, before, "the settings files after the preview")
        shot("preview")
        apply.click()
        wait.until(lambda _: "changed" in d.find_element(By.ID, "change-summary").text)
        rows = [[td.text for td in tr.find_elements(By.TAG_NAME, "td")]
                for tr in d.find_elements(By.CSS_SELECTOR, "#change-rows tbody tr")]
        same(sorted(rows), sorted([f.key(i), "ok", "ext", f.value(i, "Ext"), "7777", "changed"] for i in (4, 5)),
             "the apply")
        for i in f.agents:
            same(f.read_settings(i), f.with_value(i, "Ext", "7777") if i in (4, 5) else before[i],
                 f"agent {i}'s TDRegInfo.TXT")
        check(not apply.is_enabled(), "Apply after its apply")
        shot("apply")

        step("the Audit page")
        d.find_element(By.ID, "nav-audit").click()
        wait.until(lambda _: len(d.find_elements(By.CSS_SELECTOR, "#audit-rows tbody tr")) == 2)
        rows = [[td.text for td in tr.find_elements(By.TAG_NAME, "td")][1:]
                for tr in d.find_elements(By.CSS_SELECTOR, "#audit-rows tbody tr")]
        same(sorted(rows), sorted(["127.0.0.1", f.key(i), "ext", f.value(i, "Ext"), "7777", "changed"] for i in (4, 5)),
             "the Audit page")
        times = [tr.find_elements(By.TAG_NAME, "td")[0].text for tr in d.find_elements(By.CSS_SELECTOR, "#audit-rows tbody tr")]
        same(times, sorted(times, reverse=True), "the Audit page, newest first")
        shot("audit")

        step("a seat's actions: log in (with a spinner), the trace file, one setting changed")
        d.get(c.origin() + "/#seat/" + f.key(f.login_agent))
        wait.until(lambda _: d.find_element(By.ID, "seat-title").text == f.key(f.login_agent))
        wait.until(lambda _: d.find_elements(By.CSS_SELECTOR, "#seat-components tbody tr"))
        d.find_element(By.ID, "seat-login").click()
        check(d.find_element(By.ID, "seat-login-spinner").is_displayed() or
              d.find_element(By.ID, "seat-login-result").text, "a spinner while the login runs")
        wait.until(lambda _: d.find_element(By.ID, "seat-login-result").text)
        same(d.find_element(By.ID, "seat-login-result").text,
             "The Tyndrel Agent Client Successfully Logged in User (jsmith).{CRLF}{CRLF}User has proper access to both "
             "temp folders.", "the login result")
        check(not d.find_element(By.ID, "seat-login-spinner").is_displayed(), "the spinner after the login")
        d.find_element(By.ID, "seat-trace").click()
        wait.until(lambda _: d.find_element(By.ID, "seat-trace-result").text)
        same(d.find_element(By.ID, "seat-trace-result").text, "1", "the trace file's answer")
        d.get(c.origin() + "/#seat/" + f.key(7))
        wait.until(lambda _: d.find_element(By.ID, "seat-title").text == f.key(7))
        wait.until(lambda _: d.find_elements(By.CSS_SELECTOR, "#seat-components tbody tr"))
        Select(d.find_element(By.ID, "seat-change-setting")).select_by_value("pop4win")
        d.find_element(By.ID, "seat-change-value").send_keys("true")
        d.find_element(By.ID, "seat-change-preview").click()
        seat_apply = d.find_element(By.ID, "seat-change-apply")
        wait.until(lambda _: seat_apply.is_enabled())
        seat_apply.click()
        wait.until(lambda _: "changed" in d.find_element(By.ID, "seat-change-summary").text)
        same([[td.text for td in tr.find_elements(By.TAG_NAME, "td")]
              for tr in d.find_elements(By.CSS_SELECTOR, "#seat-change-rows tbody tr")],
             [[f.key(7), "ok", "pop4win", "false", "true", "changed"]], "the seat's change")
        same(f.read_settings(7), f.with_value(7, "PopWinName", "true"), "agent 7's TDRegInfo.TXT")
        shot("seat-change")

        step("marks that turn the text around are shown escaped; an address with a bare '%' still opens")
        same(d.execute_script("return visibleText(arguments[0])", "a\u202eb\u2066c\u200fd\x01e"),
             "a\\u202Eb\\u2066c\\u200Fd\\x01e", "direction marks and a control character as text")
        d.get(c.origin() + "/?again#%")
        wait.until(lambda _: d.execute_script("return document.body.dataset.ready === '1'"))
        check(d.find_element(By.ID, "floor").is_displayed(), "the floor after an address with a bare '%'")

        step("the browser's console: no error, no policy violation")
        logs = [e for e in d.get_log("browser") if e["level"] == "SEVERE"]
        same(logs, [], "errors in the browser's console")
        d.get(c.origin() + "/#")
        wait.until(lambda _: d.execute_script("return document.body.dataset.ready === '1'"))
        d.find_element(By.ID, "filter").send_keys("user")
        shot("readme")
    finally:
        d.quit()
    print("browser checks passed")


if __name__ == "__main__":
    main(run)
