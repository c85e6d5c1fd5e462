#!/usr/bin/env python3
"""Pairs the library's benchmarks with their peers' and writes the report.

    bench_report.py JSON_DIR OUT_MD [SVG_DIR]

JSON_DIR holds one Google Benchmark JSON file per program (bench_xml.json,
...), as --benchmark_out writes them.  OUT_MD gets one table per program:
each of our figures beside every peer figure of the same case, with the
ratio ours / peer (below 1: ours is faster).  With SVG_DIR, one bar chart
per program is drawn there through gnuplot (bench_xml.svg, ...); without
gnuplot the tables are still written.  Standard library only.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

# Per program: (our name pattern, [peer name templates]).  A pattern is a
# regular expression over the name before its first "/"; its groups fill the
# templates.  Arguments after the "/" must match too (the whole argument
# text first, else its first argument).
PAIRS = {
    "bench_calc": [
        (r"BM_CalcCopy", ["BM_VariantCopy"]),
        (r"BM_CalcRefCopy", ["BM_SharedPtrCopy"]),
        (r"BM_CalcSerialise", ["BM_MsgpackPack"]),
        (r"BM_CalcParse", ["BM_MsgpackUnpack", "BM_MsgpackUnpackConvert"]),
    ],
    "bench_calc_compile": [(r"BM_CalcCompile", ["BM_LuaLoad"])],
    "bench_calc_engine": [(r"BM_Engine_(\w+)", ["BM_Lua_{0}", "BM_MuParser_{0}"])],
    "bench_graph": [
        (r"Build_OursPresized", ["Build_Boost"]),
        (r"(\w+)_Ours", ["{0}_Boost", "{0}_BoostReuse", "{0}_BoostBfs", "{0}_BoostBuild", "{0}_BoostAll"]),
    ],
    "bench_lzop": [
        (r"BM_Container(\w+)", ["BM_RawLzo{0}"]),
        (r"BM_Stream(\w+)", ["BM_RawLzo{0}"]),
    ],
    "bench_node": [(r"BM_NodeDatagrams", ["BM_UdpDatagrams"])],
    "bench_recarr": [(r"BM_(\w+)_Kwz", ["BM_{0}_StdMap", "BM_{0}_Sqlite"])],
    "bench_record": [
        (r"build/record_\w+", ["build/protobuf", "build/memcpy_struct"]),
        (r"read/record_\w+", ["read/protobuf", "read/memcpy_struct"]),
    ],
    "bench_rectype": [(r"BM_LookupKwz", ["BM_LookupUnorderedMap"])],
    "bench_sock": [(r"BM_Kwz(\w+)", ["BM_RawTcp{0}", "BM_Zmq{0}"])],
    "bench_xml": [(r"BM_Kwz", ["BM_Pugixml", "BM_Tinyxml2"])],
}

TITLES = {
    "bench_calc": "calculator values",
    "bench_calc_compile": "calculator compiler",
    "bench_calc_engine": "calculator engine",
    "bench_graph": "graphs",
    "bench_lzop": "compression",
    "bench_node": "datagram nodes",
    "bench_recarr": "record arrays",
    "bench_record": "records",
    "bench_rectype": "record types",
    "bench_sock": "transport",
    "bench_xml": "XML",
}

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def load(path):
    """{name: nanoseconds}: the median of repetitions where there is one,
    else the run itself (real time, which is what UseRealTime cases report)."""
    with open(path) as f:
        data = json.load(f)
    runs, medians = {}, {}
    # Shuffled repetitions come out in run order: put the cases back in the
    # order the program declares them.
    cases = sorted(data.get("benchmarks", []),
                   key=lambda b: (b.get("family_index", 0), b.get("per_family_instance_index", 0)))
    for b in cases:
        ns = float(b["real_time"]) * UNIT_NS.get(b.get("time_unit", "ns"), 1.0)
        if b.get("run_type") == "aggregate":
            if b.get("aggregate_name") == "median":
                medians[b.get("run_name", b["name"][: -len("_median")])] = ns
        else:
            runs.setdefault(b.get("run_name", b["name"]), ns)
    runs.update(medians)
    return runs


def split(name):
    base, _, args = name.partition("/")
    # bench_record names carry a family prefix ("build/record_pack"): keep it
    # in the base when the next part is not an argument.
    if args and not re.match(r"^[\w.:-]*\d", args.split("/")[0]):
        part, _, args = args.partition("/")
        base = base + "/" + part
    return base, args


def find_peer(times, template_base, args):
    candidates = [n for n in times if split(n)[0] == template_base]
    for n in candidates:
        if split(n)[1] == args:
            return n
    first = args.split("/")[0]
    for n in candidates:
        if split(n)[1].split("/")[0] == first:
            return n
    return None


def pair(program, times):
    """[(ours, ours_ns, [(peer, peer_ns)])] in the order of the file."""
    rules = PAIRS.get(program, [])
    peers, peer_bases = set(), set()
    rows = []
    for name in times:
        base, args = split(name)
        for pattern, templates in rules:
            m = re.fullmatch(pattern, base)
            if not m:
                continue
            found = []
            for t in templates:
                peer_bases.add(t.format(*m.groups()))
                peer = find_peer(times, t.format(*m.groups()), args)
                if peer and peer != name:
                    found.append((peer, times[peer]))
                    peers.add(peer)
            rows.append((name, times[name], found))
            break
        else:
            rows.append((name, times[name], None))  # decided below
    out = []
    for name, ns, found in rows:
        if found is None:
            if name in peers:
                continue  # shown beside ours
            if split(name)[0] in peer_bases:
                out.append((None, None, [(name, ns)]))  # a peer's case without one of ours
                continue
            found = []
        out.append((name, ns, found))
    return out


def human(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("µs", 1e3)):
        if ns >= scale:
            return f"{ns / scale:.3g} {unit}"
    return f"{ns:.3g} ns"


def markdown(results):
    lines = [
        "# Benchmark results",
        "",
        "Medians of the last `scripts/bench.sh` run on this machine, time per",
        "iteration (real time).  **ours ÷ peer** below 1 means the library is",
        "faster than the peer on that case.  One chart per subsystem beside this",
        "file (`bench_<name>.svg`, log scale).",
        "",
    ]
    for program, rows in results:
        lines += [f"## {TITLES.get(program, program)} (`{program}`)", ""]
        if os.path.exists(os.path.join(os.path.dirname(OUT) or ".", program + ".svg")):
            lines += [f"![{program}]({program}.svg)", ""]
        lines += ["| case | ours | peer | peer's time | ours ÷ peer |", "|---|---:|---|---:|---:|"]
        for name, ns, peers in rows:
            if name is None:
                lines.append(f"| — | | `{peers[0][0]}` | {human(peers[0][1])} | |")
                continue
            if not peers:
                lines.append(f"| `{name}` | {human(ns)} | — | | |")
            for i, (peer, pns) in enumerate(peers):
                left = f"| `{name}` | {human(ns)} " if i == 0 else "| | "
                lines.append(f"{left}| `{peer}` | {human(pns)} | {ns / pns:.2f} |")
        lines.append("")
    return "\n".join(lines)


def short(name):
    return name[3:] if name.startswith("BM_") else name


def chart(program, rows, svg):
    """A clustered bar chart: ours and the first peer of each paired case."""
    paired = [(n, ns, p[0]) for n, ns, p in rows if n and p]
    if not paired or not shutil.which("gnuplot"):
        return False
    with tempfile.NamedTemporaryFile("w", suffix=".dat", delete=False) as dat:
        for name, ns, (peer, pns) in paired:
            label = (short(name) + " vs " + short(split(peer)[0])).replace('"', "'")
            dat.write(f'"{label}" {ns:.6g} {pns:.6g}\n')
    script = f"""
set terminal svg size {max(640, 90 * len(paired) + 200)},480 dynamic background rgb 'white' font 'sans,11'
set output '{svg}'
set termoption noenhanced
set title '{TITLES.get(program, program)}: time per iteration (ns, log scale; lower is faster)'
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set logscale y
set grid ytics
set xtics rotate by -35 left
set key top left
set bmargin 12
set rmargin 12
plot '{dat.name}' using 2:xtic(1) title 'libVomKwz' lc rgb '#1f77b4', '' using 3 title 'peer' lc rgb '#ff7f0e'
"""
    try:
        subprocess.run(["gnuplot"], input=script, text=True, check=True, capture_output=True)
        return True
    except subprocess.CalledProcessError as e:
        sys.stderr.write(f"bench_report: gnuplot failed for {program}: {e.stderr}\n")
        return False
    finally:
        os.unlink(dat.name)


def main(argv):
    global OUT
    if len(argv) not in (3, 4):
        sys.stderr.write(__doc__)
        return 2
    json_dir, OUT = argv[1], argv[2]
    svg_dir = argv[3] if len(argv) == 4 else None
    results = []
    for file in sorted(os.listdir(json_dir)):
        if not file.endswith(".json"):
            continue
        program = file[: -len(".json")]
        try:
            times = load(os.path.join(json_dir, file))
        except (OSError, ValueError, KeyError) as e:
            sys.stderr.write(f"bench_report: {file}: {e}\n")
            continue
        if times:
            results.append((program, pair(program, times)))
    if svg_dir:
        os.makedirs(svg_dir, exist_ok=True)
        drawn = [p for p, rows in results if chart(p, rows, os.path.join(svg_dir, p + ".svg"))]
        if not shutil.which("gnuplot"):
            sys.stderr.write("bench_report: gnuplot not found, no charts (scripts/bootstrap.sh --bench)\n")
    with open(OUT, "w") as f:
        f.write(markdown(results) + "\n")
    print(f"bench_report: {OUT}: {len(results)} programs" + (f", {len(drawn)} charts" if svg_dir else ""))
    return 0


OUT = ""
if __name__ == "__main__":
    sys.exit(main(sys.argv))
