# The management page as a script sees it, for the shell tests and benchmarks.
#   page.py PORT rows           one line per row: "IP light MAC WOL|- key" (light: Green, Red, yellow, -)
#   page.py PORT wake IP SUBNETS  presses the WOL button of the row of IP (the form posts SUBNETS back)
import re, sys, urllib.parse, urllib.request
url = "http://127.0.0.1:%s/wol" % sys.argv[1]
html = urllib.request.urlopen(url, timeout=5).read().decode("latin-1")
rows = []
for tr in [tr for tr in html.split("<tr>") if "type='checkbox'" in tr]:
    cells = [re.sub("<[^>]*>", "", c) if i in (3, 4) else c for i, c in enumerate(re.findall(r"<td[^>]*>(.*?)</td>", tr))]
    led = re.search(r"led-(\w+)\.gif", cells[1])
    rows.append((cells[3], led.group(1) if led else "-", cells[4] or "-", "WOL" if "'WOL'" in cells[5] else "-",
                 re.search(r"name='R(\d+)'", cells[0]).group(1)))
if sys.argv[2] == "rows":
    for row in rows: print(*row)
else:
    key = [row[4] for row in rows if row[0] == sys.argv[3]][0]
    form = urllib.parse.urlencode({"clientinput": "yes", "subnet": sys.argv[4], "WOL" + key: "WOL"}).encode()
    urllib.request.urlopen(url, data=form, timeout=5).read()
