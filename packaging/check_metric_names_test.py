#!/usr/bin/python3
"""Tests of check_metric_names.py: what it takes for a metric name in the
queries, what it takes for exported, and that it fails where it must."""

import io
import json
import os
import sys
import tempfile
import unittest
import unittest.mock
from contextlib import redirect_stdout

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import check_metric_names as check  # noqa: E402

# CTest passes the promtool it found; Debian's prometheus package ships it here.
PROMTOOL = os.environ.get("PROMTOOL", "/usr/bin/promtool")


class MetricNamesTest(unittest.TestCase):
    def assertNames(self, expr, names):
        self.assertEqual(check.metric_names(expr), names, expr)

    def test_grouping_labels_are_not_metrics(self):
        self.assertNames(
            'histogram_quantile(0.99, sum by (instance, le) '
            '(rate(kandb_meta_engine_sync_duration_seconds_bucket{job=~"$job"}[5m]))) > 0.05',
            ["kandb_meta_engine_sync_duration_seconds_bucket"])
        self.assertNames("sum(rate(x_total[$__rate_interval])) by (method, code)", ["x_total"])
        self.assertNames("SUM WITHOUT (instance) (x)", ["x"])
        self.assertNames("count_values(\"version\", build_info)", ["build_info"])
        self.assertNames("topk(5, sum by (method) (x))", ["x"])

    def test_both_sides_of_binary_operators(self):
        self.assertNames("a / on (job, instance) group_left (method) b", ["a", "b"])
        self.assertNames("a * ignoring(code) group_right b", ["a", "b"])
        self.assertNames("(a / b > 0.8) and on (job, instance) c", ["a", "b", "c"])
        self.assertNames("a > bool 1 unless b or c", ["a", "b", "c"])

    def test_strings_numbers_durations_and_variables_are_not_metrics(self):
        self.assertNames('label_replace(x, "dst", "$1 le", "src", "(.*)")', ["x"])
        self.assertNames("rate(x[5m] offset 1h30m) * 1e+3 + 0x1f - .5 + Inf", ["x"])
        self.assertNames("increase(x[$__range]) / ${scale} / [[other]]", ["x"])
        self.assertNames('x{code!~"InvalidArgument|NotFound", method="a}b"}', ["x"])
        self.assertNames("max_over_time(x[10m:1m])", ["x"])
        self.assertNames("x # a comment naming y\n + z", ["x", "z"])

    def test_variable_queries(self):
        self.assertEqual(check.variable_query_names('label_values(m{job=~"$job", a="x,y"}, instance)'), ["m"])
        self.assertEqual(check.variable_query_names("label_values(job)"), [])
        self.assertEqual(check.variable_query_names("query_result(topk(3, m))"), ["m"])


class ExportedNamesTest(unittest.TestCase):
    TEXT = """# HELP kandb_meta_request_duration_seconds Time.
# TYPE kandb_meta_request_duration_seconds histogram
kandb_meta_request_duration_seconds_bucket{method="Pd.Tso",le="+Inf"} 3
# HELP kandb_meta_request_errors_total Failed requests.
# TYPE kandb_meta_request_errors_total counter
# TYPE kandb_meta_uptime_seconds gauge
kandb_meta_uptime_seconds 12.5
process_open_fds 9
"""

    def test_families_samples_and_histogram_suffixes(self):
        names = check.exported_names(self.TEXT)
        for name in ["kandb_meta_request_duration_seconds_bucket", "kandb_meta_request_duration_seconds_sum",
                     "kandb_meta_request_duration_seconds_count",
                     # A family without samples yet (no request failed).
                     "kandb_meta_request_errors_total", "kandb_meta_uptime_seconds", "process_open_fds"]:
            self.assertIn(name, names)
        self.assertNotIn("kandb_meta_request_errors_total_bucket", names)
        self.assertNotIn("HELP", names)


class MainTest(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.metrics = self.write("metrics.txt", ExportedNamesTest.TEXT)

    def tearDown(self):
        self.dir.cleanup()

    def write(self, name, text):
        path = os.path.join(self.dir.name, name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return path

    def run_check(self, dashboard, rules, extra=()):
        argv = list(extra) + ["--metrics", self.metrics,
                "--dashboard", self.write("dashboard.json", json.dumps(dashboard)),
                "--rules", self.write("rules.yml", rules)]
        out = io.StringIO()
        with redirect_stdout(out):
            status = check.main(argv)
        return status, out.getvalue()

    DASHBOARD = {
        "panels": [
            {"title": "Latency", "targets": [
                {"expr": "histogram_quantile(0.99, sum by (le) "
                         "(rate(kandb_meta_request_duration_seconds_bucket[5m])))"}]},
            # A collapsed row holds its panels.
            {"type": "row", "title": "Process", "panels": [
                {"title": "Descriptors", "targets": [{"expr": "process_open_fds"}]}]},
        ],
        "templating": {"list": [
            {"type": "datasource", "name": "datasource", "query": "prometheus"},
            {"type": "query", "name": "instance",
             "query": {"query": "label_values(kandb_meta_uptime_seconds, instance)", "refId": "A"}},
        ]},
    }
    RULES = """groups:
  - name: g
    rules:
      - alert: Down
        expr: up{job="kandb-meta"} == 0
      - alert: Errors
        expr: rate(kandb_meta_request_errors_total[5m]) > 0
"""

    def test_passes_when_every_name_is_exported(self):
        status, out = self.run_check(self.DASHBOARD, self.RULES)
        self.assertEqual(status, 0, out)

    def test_names_each_unexported_name_with_its_place(self):
        dashboard = json.loads(json.dumps(self.DASHBOARD))
        dashboard["panels"][1]["panels"][0]["targets"].append({"expr": "process_open_fd"})
        dashboard["templating"]["list"][1]["query"] = "label_values(kandb_meta_uptime, instance)"
        status, out = self.run_check(dashboard, self.RULES + "      - alert: X\n        expr: kandb_meta_leader < 1\n")
        self.assertEqual(status, 1)
        self.assertIn("dashboard: panel 'Descriptors' names process_open_fd", out)
        self.assertIn("dashboard: variable 'instance' names kandb_meta_uptime", out)
        self.assertIn("rules: rule 'X' names kandb_meta_leader", out)

    def test_fails_when_a_file_has_no_queries(self):
        status, out = self.run_check({"panels": [{"title": "Empty", "targets": [{"refId": "A"}]}]}, self.RULES)
        self.assertEqual(status, 1)
        self.assertIn("dashboard: no metric names found", out)

    def test_grafana_variables_become_promql(self):
        self.assertEqual(check.grafana_to_promql('rate(x{job=~"$job",i=~"${instance}"}[$__rate_interval])'),
                         'rate(x{job=~".*",i=~".*"}[1m])')
        self.assertEqual(check.grafana_to_promql("increase(x[${__range}]) + y[[v]]"), "increase(x[1m]) + y.*")

    def test_promtool_rejects_a_query_that_does_not_parse(self):
        dashboard = json.loads(json.dumps(self.DASHBOARD))
        argv = ["--promtool", PROMTOOL]
        status, out = self.run_check(dashboard, self.RULES, argv)
        self.assertEqual(status, 0, out)
        self.assertIn("promtool parses all 2 panel queries", out)
        # A missing parenthesis, a name that is still exported.
        dashboard["panels"][0]["targets"][0]["expr"] = "sum by (le) (rate(process_open_fds[5m])"
        status, out = self.run_check(dashboard, self.RULES, argv)
        self.assertEqual(status, 1, out)
        self.assertIn("queries Prometheus does not parse", out)

    def test_unreadable_input(self):
        argv = ["--metrics", os.path.join(self.dir.name, "absent"), "--dashboard", self.metrics,
                "--rules", self.metrics]
        with redirect_stdout(io.StringIO()), unittest.mock.patch("sys.stderr", io.StringIO()):
            self.assertEqual(check.main(argv), 2)


if __name__ == "__main__":
    unittest.main()
