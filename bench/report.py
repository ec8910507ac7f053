#!/usr/bin/env python3
"""Turns the benchmark JSON (meridbsp_bench --benchmark_out=build/bench.json
--benchmark_out_format=json) into one table per mesh: our figure, the best peer's
figure and the ratio (above 1: we are faster), with the project's targets.

Usage: bench/report.py [build/bench.json] [--markdown]
"""
import json
import sys

# Our benchmark -> (peers to compare with, kind of figure, target as (peer, min ratio or
# a function of the mesh name giving it, the one mesh it applies to or None for every mesh)).
ROWS = [
    # Builds: within 3x of the ray kernel's, 10x on the convex spheres.
    ("clip_build", ["peer_embree_build", "peer_bullet_build"], "time",
     ("peer_embree_build", lambda mesh: 0.1 if mesh.startswith("sphere") else 1.0 / 3.0, None)),
    ("point_info", ["peer_embree_inside"], "rate", ("peer_embree_inside", 3.0, None)),
    ("check_collision", ["peer_embree_segment", "peer_bullet_segment"], "rate", ("peer_embree_segment", 1.0, None)),
    ("vis_build/{mesh}/mid_split", [], "time", None),
    ("vis_build/{mesh}/normal", [], "time", None),
    ("chunk_save", [], "bytes", None),
    ("chunk_load", [], "bytes", None),
]

TO_SECONDS = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}


def strip_iterations(name):
    # Benchmarks run with a fixed iteration count carry "/iterations:N" in their name, and
    # those timed in wall time "/real_time".
    parts = [p for p in name.split("/") if not p.startswith("iterations:") and p != "real_time"]
    return "/".join(parts)


def thread_counts(runs, prefix):
    """The K of every benchmark named prefix + "/threads:K", in order."""
    counts = []
    for name in runs:
        if name.startswith(prefix + "/threads:"):
            counts.append(int(name.rsplit(":", 1)[1]))
    return sorted(counts)


def scaling_rows(runs, mesh):
    """Wall-time speed-ups over one thread: the parallel builds (against clip_build and
    vis_build, the single-threaded ones) and the queries answered from several threads at
    once."""
    rows = []

    def wall(run):
        return run["real_time"] * TO_SECONDS[run.get("time_unit", "ns")]

    for label, prefix in [("clip_build", "clip_build/%s" % mesh),
                          ("vis_build mid_split", "vis_build/%s/mid_split" % mesh),
                          ("vis_build normal", "vis_build/%s/normal" % mesh)]:
        base = runs.get(prefix)
        for k in thread_counts(runs, prefix):
            run = runs.get("%s/threads:%d" % (prefix, k))
            if not base or not run or base.get("error_occurred") or run.get("error_occurred"):
                continue
            rows.append([label, "1 -> %d" % k, "%s -> %s" % (fmt_time(wall(base)), fmt_time(wall(run))),
                         "%.2fx" % (wall(base) / wall(run))])
    for family in ("point_info_threads", "check_collision_threads"):
        prefix = "%s/%s" % (family, mesh)
        one = runs.get(prefix + "/threads:1")
        if not one or one.get("error_occurred") or not one.get("wall_s"):
            continue
        rate1 = one["queries"] / one["wall_s"]
        for k in thread_counts(runs, prefix):
            run = runs.get("%s/threads:%d" % (prefix, k))
            if k == 1 or not run or run.get("error_occurred") or not run.get("wall_s"):
                continue
            rate = run["queries"] / run["wall_s"]
            rows.append([family.replace("_threads", ""), "1 -> %d" % k,
                         "%.3g -> %.3g M/s" % (rate1 / 1e6, rate / 1e6), "%.2fx" % (rate / rate1)])
    return rows


def load(path):
    with open(path) as f:
        data = json.load(f)
    runs = {}
    for b in data.get("benchmarks", []):
        if b.get("run_type", "iteration") == "aggregate" and b.get("aggregate_name") != "mean":
            continue
        runs[strip_iterations(b.get("run_name", b["name"]))] = b
    return data, runs


def figure(run, kind):
    """(value, text) or (None, reason) for one benchmark run."""
    if run is None:
        return None, "not run"
    if run.get("error_occurred"):
        return None, run.get("error_message", "error")
    if kind == "time":
        s = run["cpu_time"] * TO_SECONDS[run.get("time_unit", "ns")]
        return 1.0 / s if s > 0 else None, fmt_time(s)
    if kind == "rate":
        v = run.get("items_per_second")
        return v, ("%.3g M/s" % (v / 1e6)) if v else "?"
    if kind == "bytes":
        v = run.get("bytes_per_second")
        if not v:
            return v, "?"
        return v, ("%.3g GB/s" % (v / 1e9)) if v >= 1e9 else ("%.3g MB/s" % (v / 1e6))
    return None, "?"


def fmt_time(s):
    if s >= 1.0:
        return "%.3g s" % s
    if s >= 1e-3:
        return "%.3g ms" % (s * 1e3)
    return "%.3g us" % (s * 1e6)


def meshes_in(runs):
    seen = []
    for name in runs:
        parts = name.split("/")
        if len(parts) >= 2 and parts[1] not in seen:
            seen.append(parts[1])
    return seen


def report(path, markdown):
    data, runs = load(path)
    out = []
    ctx = data.get("context", {})
    out.append("Run: %s, %s CPUs at %s MHz, load %s" % (
        ctx.get("date", "?"), ctx.get("num_cpus", "?"), ctx.get("mhz_per_cpu", "?"),
        ", ".join("%.2f" % x for x in ctx.get("load_avg", []))))
    for mesh in meshes_in(runs):
        tri = None
        for name in ("clip_build/%s" % mesh, "vis_build/%s/mid_split" % mesh, "peer_embree_build/%s" % mesh):
            r = runs.get(name)
            if r and "triangles" in r:
                tri = int(r["triangles"])
                break
        out.append("")
        out.append("%s%s" % (("### " if markdown else "== "), mesh + (" (%d triangles)" % tri if tri else "")))
        header = ["benchmark", "ours", "best peer", "peer figure", "ratio", "target"]
        rows = []
        for ours_name, peers, kind, target in ROWS:
            name = ours_name.format(mesh=mesh) if "{mesh}" in ours_name else "%s/%s" % (ours_name, mesh)
            ours_v, ours_t = figure(runs.get(name), kind)
            best = None
            for p in peers:
                v, t = figure(runs.get("%s/%s" % (p, mesh)), kind)
                if v is not None and (best is None or v > best[1]):
                    best = (p, v, t)
            ratio = "%.3g" % (ours_v / best[1]) if best and ours_v else "-"
            tgt = "-"
            if target and target[2] in (None, mesh):
                tp, tmin, _ = target
                tmin = tmin(mesh) if callable(tmin) else tmin
                tv, _ = figure(runs.get("%s/%s" % (tp, mesh)), kind)
                if ours_v and tv:
                    r = ours_v / tv
                    tgt = "%s %.3g vs %s: %s" % (">=", tmin, tp, "met" if r >= tmin else "NOT met (%.3g)" % r)
            rows.append([name.split("/")[0] + ("/" + name.split("/")[2] if name.count("/") >= 2 else ""),
                         ours_t, best[0] if best else "-", best[2] if best else "-", ratio, tgt])
        cc = runs.get("cross_check/%s" % mesh)
        out.extend(table(header, rows, markdown))
        scaling = scaling_rows(runs, mesh)
        if scaling:
            out.append("")
            out.append("threads (wall time, the machine's load included):")
            out.extend(table(["benchmark", "threads", "figure", "speed-up"], scaling, markdown))
        if cc and not cc.get("error_occurred"):
            sp, si = cc.get("solid_points", 0), cc.get("solid_inside", 0)
            bl, be, bb = cc.get("blocked", 0), cc.get("blocked_embree_hit", 0), cc.get("blocked_bullet_hit", 0)
            out.append("")
            out.append("cross-check (%d queries): solid points inside by parity %d/%d (%.3f %%); "
                       "blocked segments hit by embree %d/%d, by bullet %d/%d" % (
                           cc.get("checked", 0), si, sp, 100.0 * si / sp if sp else 100.0, be, bl, bb, bl))
        elif cc:
            out.append("")
            out.append("cross-check: %s" % cc.get("error_message", "error"))
    return "\n".join(out)


def table(header, rows, markdown):
    if markdown:
        lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
        lines += ["| " + " | ".join(r) + " |" for r in rows]
        return lines
    widths = [max(len(str(x)) for x in col) for col in zip(header, *rows)]
    fmt = "  ".join("%%-%ds" % w for w in widths)
    return [fmt % tuple(header), fmt % tuple("-" * w for w in widths)] + [fmt % tuple(r) for r in rows]


def main(argv):
    args = [a for a in argv[1:] if not a.startswith("--")]
    path = args[0] if args else "build/bench.json"
    print(report(path, "--markdown" in argv))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
