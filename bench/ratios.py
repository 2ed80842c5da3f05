#!/usr/bin/env python3
"""Ratio tables from Google Benchmark JSON written by bench_utf and bench_base64.

    bench/bench_utf --benchmark_format=json --benchmark_repetitions=5 \\
        --benchmark_report_aggregates_only=true > utf.json
    bench/bench_base64 --benchmark_format=json --benchmark_repetitions=5 \\
        --benchmark_report_aggregates_only=true > base64.json
    python3 bench/ratios.py utf.json base64.json      # or '-' for stdin

Each benchmark is taken at its "median" aggregate. Without aggregates (a run
without repetitions) the median of its plain runs is used instead.

Names it knows:
    utf8to16/<corpus>/<impl>, utf16to8/<corpus>/<impl>
        impl: ours_unchecked, ours_bounded, utfcpp, icu, memcpy
    hashv3/<corpus>/<impl>        impl: ours_utf16, ours_utf8, naive, naive_utf8
    base64_encode/<impl>, base64_decode/<impl>    impl: ours, openssl, glib
    <case>/<impl> with an impl "ours" (locks, queue, containers): peer time
        over our time, each member of a case doing the same work per iteration.
Anything else is listed at the end and otherwise ignored.

Ratios are of bytes_per_second, so above 1 means faster than the reference.
bench_utf reports the UTF-8 size of the corpus for every conversion in both
directions, so those ratios are ratios of time on the same text. memcpy
reports the bytes it copies, the hashes the bytes they read: for ours_utf8
against naive (UTF-8 bytes against UTF-16 bytes of the same text) the ratio
is taken from the CPU times instead.
"""

import argparse
import json
import statistics
import sys

CORPUS_ORDER = ["ascii", "latin", "cjk", "emoji"]
TIME_UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


class Result:
    def __init__(self, bytes_per_second, cpu_ns, real_ns=None):
        self.bytes_per_second = bytes_per_second
        self.cpu_ns = cpu_ns
        self.real_ns = real_ns if real_ns is not None else cpu_ns


def load(paths):
    """Returns {run name: Result}, medians only."""
    medians = {}
    plain = {}
    for path in paths:
        if path == "-":
            data = json.load(sys.stdin)
        else:
            with open(path, encoding="utf-8") as f:
                data = json.load(f)
        for b in data.get("benchmarks", []):
            if b.get("error_occurred"):
                continue
            name = b.get("run_name") or b["name"]
            unit = TIME_UNIT_NS.get(b.get("time_unit", "ns"), 1.0)
            cpu_ns = b.get("cpu_time", 0.0) * unit
            real_ns = b.get("real_time", 0.0) * unit
            bps = b.get("bytes_per_second")
            if b.get("run_type") == "aggregate":
                if b.get("aggregate_name") == "median":
                    medians[name] = Result(bps, cpu_ns, real_ns)
            else:
                plain.setdefault(name, []).append((bps, cpu_ns, real_ns))
    for name, runs in plain.items():
        if name in medians:
            continue
        rates = [r for r, _, _ in runs if r is not None]
        medians[name] = Result(statistics.median(rates) if rates else None,
                               statistics.median(t for _, t, _ in runs),
                               statistics.median(t for _, _, t in runs))
    return medians


def ratio(num, den):
    """num / den of bytes_per_second, or None when either is missing."""
    if num is None or den is None or not num.bytes_per_second or not den.bytes_per_second:
        return None
    return num.bytes_per_second / den.bytes_per_second


def time_ratio(faster, reference):
    """How many times faster `faster` ran than `reference` on the same input."""
    if faster is None or reference is None or not faster.cpu_ns:
        return None
    return reference.cpu_ns / faster.cpu_ns


def fmt_ratio(r):
    return "–" if r is None else f"{r:.2f}x"


def fmt_rate(res):
    if res is None or not res.bytes_per_second:
        return "–"
    return f"{res.bytes_per_second / 1e9:.2f}"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" for _ in header) + "|"]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def corpora_of(results, family):
    seen = []
    for name in results:
        parts = name.split("/")
        if len(parts) == 3 and parts[0] == family and parts[1] not in seen:
            seen.append(parts[1])
    known = [c for c in CORPUS_ORDER if c in seen]
    return known + [c for c in seen if c not in CORPUS_ORDER]


def conversion_section(results, family, title, memcpy_note):
    corpora = corpora_of(results, family)
    if not corpora:
        return None
    rows = []
    for corpus in corpora:
        get = lambda impl: results.get(f"{family}/{corpus}/{impl}")
        base = get("utfcpp")
        rows.append([
            corpus,
            fmt_rate(base),
            fmt_ratio(ratio(get("ours_unchecked"), base)),
            fmt_ratio(ratio(get("ours_bounded"), base)),
            fmt_ratio(ratio(get("icu"), base)),
            fmt_ratio(ratio(get("memcpy"), base)),
            fmt_rate(get("ours_unchecked")),
            fmt_rate(get("memcpy")),
        ])
    header = ["corpus", "utfcpp GB/s", "ours unchecked / utfcpp", "ours bounded / utfcpp",
              "ICU / utfcpp", "memcpy / utfcpp", "ours unchecked GB/s", "memcpy GB/s"]
    return (f"### {title}\n\nThroughput counted in UTF-8 bytes of the corpus; {memcpy_note}\n\n"
            + table(header, rows))


def hash_section(results):
    corpora = corpora_of(results, "hashv3")
    if not corpora:
        return None
    rows = []
    for corpus in corpora:
        get = lambda impl: results.get(f"hashv3/{corpus}/{impl}")
        naive = get("naive")
        rows.append([
            corpus,
            fmt_rate(naive),
            fmt_ratio(ratio(get("ours_utf16"), naive)),
            fmt_ratio(ratio(get("ours_utf8"), get("naive_utf8"))),
            fmt_ratio(time_ratio(get("ours_utf8"), naive)),
            fmt_rate(get("ours_utf16")),
            fmt_rate(get("ours_utf8")),
        ])
    header = ["corpus", "naive GB/s", "ours UTF-16 / naive", "ours UTF-8 / naive UTF-8",
              "ours UTF-8 / naive UTF-16 (by time)",
              "ours UTF-16 GB/s", "ours UTF-8 GB/s"]
    return ("### V3 hash\n\nnaive is the plain `h = h * 37 + unit` loop over the UTF-16 form; naive UTF-8 is the same loop fed by utfcpp's one-character decoder. "
            "GB/s counts each input's own bytes (UTF-16 or UTF-8); the UTF-8 ratio compares "
            "CPU time on the same text.\n\n" + table(header, rows))


def base64_section(results):
    rows = []
    for family, label in (("base64_encode", "encode"), ("base64_decode", "decode")):
        get = lambda impl: results.get(f"{family}/{impl}")
        base = get("openssl")
        if base is None and get("ours") is None and get("glib") is None:
            continue
        rows.append([label, fmt_rate(base), fmt_ratio(ratio(get("ours"), base)),
                     fmt_ratio(ratio(get("glib"), base)), fmt_rate(get("ours"))])
    if not rows:
        return None
    header = ["operation", "OpenSSL GB/s", "ours / OpenSSL", "GLib / OpenSSL", "ours GB/s"]
    return "### Base64\n\nThroughput counted in binary bytes.\n\n" + table(header, rows)


KNOWN_FAMILIES = {"utf8to16", "utf16to8", "hashv3", "base64_encode", "base64_decode"}


def split_case(name):
    """(case, impl, real) of "<case>/<impl>[/<arg>...][/real_time][/threads:N]":
    Google Benchmark appends a benchmark's arguments after its name, so
    trailing numeric parts and the thread count belong to the case
    ("queue/ours/2" is case "queue/2", "GetArg/ours/real_time/threads:2" is
    case "GetArg/threads:2")."""
    parts = name.split("/")
    # Thread counts ("threads:2", from Threads()) belong to the case too.
    threads = [p for p in parts if p.startswith("threads:")]
    parts = [p for p in parts if not p.startswith("threads:")]
    real = parts[-1] == "real_time"
    if real:
        parts.pop()
    args = threads
    while len(parts) > 2 and parts[-1].lstrip("-").isdigit():
        args.insert(0, parts.pop())
    case, impl = "/".join(parts[:-1] + args), parts[-1]
    return case, impl, real


def timed_sections(results):
    """Every other "<case>/<impl>" group that has an "ours" member: the peers'
    time over ours (above 1 means ours is faster). CPU time, or wall-clock
    time for benchmarks run with UseRealTime() (names ending "/real_time").
    Each member of a group must do the same work per iteration."""
    groups = {}
    for name, res in results.items():
        case, impl, real = split_case(name)
        if not case or case.split("/")[0] in KNOWN_FAMILIES:
            continue
        groups.setdefault(case, {})[impl] = res.real_ns if real else res.cpu_ns
    rows = []
    for case, impls in groups.items():
        ours = impls.get("ours")
        if not ours:
            continue
        peers = [f"{impl} {fmt_ratio(t / ours)}" for impl, t in impls.items() if impl != "ours"]
        rows.append([case, f"{ours:.1f}", ", ".join(peers)])
    if not rows:
        return None
    return ("### Timed comparisons\n\nPeer time / our time (medians); above 1 means ours is faster.\n\n"
            + table(["case", "ours ns/iteration", "peers"], rows))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("json", nargs="+", help="Google Benchmark JSON output, '-' for stdin")
    args = parser.parse_args(argv)

    results = load(args.json)
    if not results:
        print("ratios.py: no benchmark results in the input", file=sys.stderr)
        return 1

    sections = [
        conversion_section(results, "utf8to16", "UTF-8 to UTF-16",
                           "memcpy copies the UTF-8 bytes."),
        conversion_section(results, "utf16to8", "UTF-16 to UTF-8",
                           "memcpy copies the UTF-16 form (2 bytes a unit) and counts those bytes."),
        hash_section(results),
        base64_section(results),
        timed_sections(results),
    ]
    print("\n\n".join(s for s in sections if s))

    with_ours = {split_case(n)[0] for n in results if split_case(n)[1] == "ours"}
    unknown = sorted(n for n in results if n.split("/")[0] not in KNOWN_FAMILIES
                     and split_case(n)[0] not in with_ours)
    if unknown:
        print("\nNot tabulated: " + ", ".join(unknown))
    return 0


if __name__ == "__main__":
    sys.exit(main())
