#!/usr/bin/python3
"""Checks that the dashboard and the alert rules name only exported metrics.

    check_metric_names.py --metrics SOURCE [--metrics SOURCE ...]
                          --dashboard kandb-meta-dashboard.json
                          --rules kandb-meta-alerts.yml
                          [--promtool /usr/bin/promtool]

Each SOURCE is a file of Prometheus text (what /metrics served) or an
http(s):// URL to fetch it from; give one of each server kind, since only
the embedded server exports the engine's figures and only the replicated
one the leader's. A metric counts as exported when a sample or a TYPE line
names it; a histogram's family also exports its _bucket, _sum and _count.

Every metric name in every query of the dashboard (panels, nested rows and
the label_values() queries of its variables) and in every rule expression
must be exported, except Prometheus's own `up`. With --promtool every
panel query must also parse as PromQL (Grafana's variables replaced). Exit
status 0 when all holds, 1 when not (each fault listed), 2 for unreadable
input.
"""

import argparse
import json
import re
import subprocess
import sys
import tempfile
import urllib.request

import yaml

# Series that Prometheus makes itself rather than scraping.
PROMETHEUS_OWN = {"up"}

# Words of PromQL that stand where a metric name could: aggregation
# operators (followed by `by`/`without` or by their parenthesis), set
# operators, modifiers and literals.
AGGREGATIONS = {
    "sum", "min", "max", "avg", "group", "stddev", "stdvar", "count",
    "count_values", "bottomk", "topk", "quantile",
}
KEYWORDS = AGGREGATIONS | {
    "and", "or", "unless", "bool", "offset", "atan2", "inf", "nan",
    "by", "without", "on", "ignoring", "group_left", "group_right",
}
# Modifiers whose parenthesis holds label names, not expressions.
LABEL_LIST_MODIFIERS = {"by", "without", "on", "ignoring", "group_left", "group_right"}

HISTOGRAM_SUFFIXES = ("_bucket", "_sum", "_count")

NAME_START = re.compile(r"[A-Za-z_:]")
NAME_REST = re.compile(r"[A-Za-z0-9_:]*")


def _skip_string(expr, i):
    """Index just past the string literal that starts at expr[i]."""
    quote = expr[i]
    i += 1
    while i < len(expr):
        if expr[i] == "\\" and quote != "`":
            i += 2
            continue
        if expr[i] == quote:
            return i + 1
        i += 1
    return i


def _skip_group(expr, i, close):
    """Index just past the `close` that matches the opener at expr[i]."""
    opener = expr[i]
    depth = 0
    while i < len(expr):
        c = expr[i]
        if c in "\"'`":
            i = _skip_string(expr, i)
            continue
        if c == opener:
            depth += 1
        elif c == close:
            depth -= 1
            if depth == 0:
                return i + 1
        i += 1
    return i


def _next_significant(expr, i):
    while i < len(expr) and expr[i].isspace():
        i += 1
    return expr[i] if i < len(expr) else ""


def metric_names(expr):
    """The metric names a PromQL expression selects, in order of appearance.

    Label matchers ({...}), ranges and subqueries ([...]), strings, numbers
    and durations, function and operator names, the label lists of
    by/without/on/ignoring/group_left/group_right, and Grafana's variables
    ($name, ${name}, [[name]]) are none.
    """
    names = []
    i = 0
    n = len(expr)
    while i < n:
        c = expr[i]
        if c in "\"'`":
            i = _skip_string(expr, i)
        elif c == "{":
            i = _skip_group(expr, i, "}")
        elif c == "[":
            i = _skip_group(expr, i, "]")
        elif c == "#":
            # A comment runs to the end of its line.
            while i < n and expr[i] != "\n":
                i += 1
        elif c == "$":
            i += 1
            if i < n and expr[i] == "{":
                i = _skip_group(expr, i, "}")
            else:
                i += len(NAME_REST.match(expr, i).group(0))
        elif c.isdigit() or (c == "." and i + 1 < n and expr[i + 1].isdigit()):
            # Numbers (1e9, 0x1f, .5) and durations (5m, 1h30m).
            i += 1
            while i < n and (expr[i].isalnum() or expr[i] in "._"):
                if expr[i] in "eE" and i + 1 < n and expr[i + 1] in "+-":
                    i += 1
                i += 1
        elif NAME_START.match(c):
            word = NAME_REST.match(expr, i).group(0)
            i += len(word)
            following = _next_significant(expr, i)
            # Keywords are case-insensitive; metric names are not.
            if word.lower() in LABEL_LIST_MODIFIERS and following == "(":
                i = _skip_group(expr, expr.index("(", i), ")")
            elif following == "(" or word.lower() in KEYWORDS:
                pass  # a function, an aggregation or a keyword
            else:
                names.append(word)
        else:
            i += 1
    return names


def variable_query_names(query):
    """Metric names in a Grafana variable's query: label_values(METRIC, LABEL)
    names one (its selector), label_values(LABEL) none; other queries are
    PromQL."""
    m = re.fullmatch(r"\s*label_values\((.*)\)\s*", query, re.S)
    if m is None:
        m = re.fullmatch(r"\s*query_result\((.*)\)\s*", query, re.S)
        return metric_names(m.group(1) if m else query)
    args = m.group(1)
    # The label is the last argument; everything before its comma is the
    # selector (which may hold commas of its own inside braces).
    depth = 0
    last_comma = -1
    for idx, ch in enumerate(args):
        if ch in "{([":
            depth += 1
        elif ch in "})]":
            depth -= 1
        elif ch == "," and depth == 0:
            last_comma = idx
    return metric_names(args[:last_comma]) if last_comma >= 0 else []


def _panels(panels):
    for panel in panels or []:
        yield panel
        # Collapsed rows keep their panels inside.
        yield from _panels(panel.get("panels"))


def dashboard_queries(dashboard):
    """(where, query, is_variable) for every query of a dashboard."""
    out = []
    for panel in _panels(dashboard.get("panels")):
        for target in panel.get("targets") or []:
            expr = target.get("expr")
            if isinstance(expr, str) and expr.strip():
                out.append(("panel '%s'" % panel.get("title", "?"), expr, False))
    for var in (dashboard.get("templating") or {}).get("list") or []:
        if var.get("type") != "query":
            continue
        query = var.get("query")
        if isinstance(query, dict):
            query = query.get("query")
        if isinstance(query, str) and query.strip():
            out.append(("variable '%s'" % var.get("name", "?"), query, True))
    return out


def rule_queries(rules):
    out = []
    for group in (rules or {}).get("groups") or []:
        for rule in group.get("rules") or []:
            name = rule.get("alert") or rule.get("record") or "?"
            out.append(("rule '%s'" % name, str(rule.get("expr", "")), False))
    return out


def grafana_to_promql(expr):
    """A panel's query with Grafana's variables replaced by values that
    Prometheus parses: intervals by a minute, the rest (label values in
    regular expressions) by .*."""
    expr = re.sub(r"\$__(rate_interval|interval|range)\b|\$\{__(rate_interval|interval|range)\}", "1m", expr)
    return re.sub(r"\$\{\w+\}|\$\w+|\[\[\w+\]\]", ".*", expr)


def check_syntax(promtool, queries):
    """Runs every panel query past Prometheus's own parser (promtool check
    rules, each as a recording rule); returns its complaint or None."""
    rules = {"groups": [{"name": "dashboard", "rules": [
        {"record": "dashboard:query_%d" % i, "expr": grafana_to_promql(query)}
        for i, (_, query, _) in enumerate(queries)]}]}
    with tempfile.NamedTemporaryFile("w", suffix=".yml", encoding="utf-8") as f:
        yaml.safe_dump(rules, f)
        f.flush()
        result = subprocess.run([promtool, "check", "rules", f.name], capture_output=True, text=True)
    if result.returncode == 0:
        return None
    return result.stdout + result.stderr


def exported_names(text):
    """Every metric name a Prometheus text exposition exports."""
    names = set()
    for line in text.splitlines():
        line = line.strip()
        if not line:
            continue
        if line.startswith("#"):
            fields = line.split()
            if len(fields) >= 4 and fields[1] == "TYPE":
                names.add(fields[2])
                if fields[3] in ("histogram", "summary"):
                    names.update(fields[2] + s for s in ("_sum", "_count"))
                if fields[3] == "histogram":
                    names.add(fields[2] + "_bucket")
            continue
        m = re.match(r"[A-Za-z_:][A-Za-z0-9_:]*", line)
        if m:
            names.add(m.group(0))
    return names


def read_source(source):
    if re.match(r"https?://", source):
        with urllib.request.urlopen(source, timeout=30) as answer:
            return answer.read().decode("utf-8")
    with open(source, encoding="utf-8") as f:
        return f.read()


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--metrics", action="append", required=True, help="file or URL of /metrics text")
    parser.add_argument("--dashboard", required=True)
    parser.add_argument("--rules", required=True)
    parser.add_argument("--promtool", help="also parse every panel query with this promtool")
    args = parser.parse_args(argv)

    try:
        exported = set()
        for source in args.metrics:
            exported |= exported_names(read_source(source))
        with open(args.dashboard, encoding="utf-8") as f:
            dashboard = json.load(f)
        with open(args.rules, encoding="utf-8") as f:
            rules = yaml.safe_load(f)
    except (OSError, ValueError, yaml.YAMLError) as e:
        print("cannot read the input: %s" % e, file=sys.stderr)
        return 2

    queries = [("dashboard", q) for q in dashboard_queries(dashboard)] + [("rules", q) for q in rule_queries(rules)]
    used = {"dashboard": set(), "rules": set()}
    missing = []
    for source, (where, query, is_variable) in queries:
        names = variable_query_names(query) if is_variable else metric_names(query)
        for name in names:
            used[source].add(name)
            if name not in exported and name not in PROMETHEUS_OWN:
                missing.append("%s: %s names %s" % (source, where, name))
    # A file whose queries all vanished (a renamed key, an empty list)
    # would pass without checking anything.
    for source, names in used.items():
        if not names:
            missing.append("%s: no metric names found in any query" % source)

    if args.promtool:
        panel_queries = [q for q in dashboard_queries(dashboard) if not q[2]]
        complaint = check_syntax(args.promtool, panel_queries)
        if complaint is not None:
            missing.append("dashboard: queries Prometheus does not parse:\n" + complaint)
        else:
            print("promtool parses all %d panel queries" % len(panel_queries))

    print("exported: %d names; the dashboard uses %d, the rules %d" %
          (len(exported), len(used["dashboard"]), len(used["rules"])))
    shown = used["dashboard"] | used["rules"]
    families = {n for n in exported if not n.endswith(HISTOGRAM_SUFFIXES)}
    unused = sorted(n for n in families if not any(n + s in shown for s in ("",) + HISTOGRAM_SUFFIXES))
    if unused:
        print("exported but neither shown nor alerted on: " + ", ".join(unused))
    if missing:
        print("names that no server exports:\n  " + "\n  ".join(missing))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
