#!/usr/bin/env python3
"""Turns the raw figures of run.sh into the Markdown section of bench/README.md.

usage: report.py RESULTS.tsv PROFILES.tsv RUNS MACHINE VERSIONS
Round 0 is the warm-up and is left out.
"""
import csv
import datetime
import statistics
import sys

JOBS = [
    ("full", "full backup into an empty destination"),
    ("nochange", "rerun, nothing changed"),
    ("touch", "rerun after 1% of the files got a new modification time"),
    ("version", "rerun after 1% of the files got new content (ours: old copies kept as versions)"),
]
ORDER = ["ours (work)", "ours", "rsync", "rclone", "restic", "borg", "cp", "cat", "find"]
LABEL = {
    "ours (work)": "**ours**, the run's work",
    "ours": "**ours**, whole process",
    "cp": "floor: `cp -a`",
    "cat": "floor: `cat` every file",
    "find": "floor: `find -printf '%s %T@'`",
    "rsync": "`rsync -a`",
    "rclone": "`rclone copy`",
    "restic": "`restic backup`",
    "borg": "`borg create` (no encryption)",
}


def num(text):
    return float(text) if text not in ("", None) else None


def main():
    results, profiles_file, runs, machine, versions = sys.argv[1:6]
    rows = [r for r in csv.DictReader(open(results), delimiter="\t") if r["round"] != "0"]
    sizes = {}
    for line in open(profiles_file):
        name, files, size = line.split()
        sizes[name] = (int(files), int(size))

    out = ["<!-- SUITE -->"]
    out.append("Measured %s on: %s." % (datetime.datetime.now(datetime.timezone.utc)
                                        .strftime("%Y-%m-%d %H:%M UTC"), machine))
    out.append("")
    out.append("Tools: %s. Median wall time of %s counted runs after one warm-up run; "
               "the tools took turns run by run." % (versions, runs))
    out.append("")
    for profile, (files, size) in sizes.items():
        out.append("### %s: %d files, %.1f MB" % (profile, files, size / 1e6))
        out.append("")
        for job, title in JOBS:
            here = [r for r in rows if r["profile"] == profile and r["job"] == job]
            if not here:
                continue
            by_tool = {}
            for r in here:
                by_tool.setdefault(r["tool"], []).append(r)
                if r["tool"] == "ours" and r["work"]:
                    by_tool.setdefault("ours (work)", []).append(r)
            medians = {}
            for tool, rs in by_tool.items():
                key = "work" if tool == "ours (work)" else "wall"
                medians[tool] = statistics.median(float(r[key]) for r in rs)
            out.append("**%s** (%s)" % (job, title))
            out.append("")
            out.append("| Tool | Median wall s | Min–max s | User s | Sys s | Peak RSS MB "
                       "| Files/s | MB/s | RSS bytes/file | ours (work) ÷ this | ours (whole) ÷ this |")
            out.append("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|")
            for tool in ORDER:
                rs = by_tool.get(tool)
                if not rs:
                    continue
                key = "work" if tool == "ours (work)" else "wall"
                walls = [float(r[key]) for r in rs]
                median = medians[tool]
                user = statistics.median(float(r["user"]) for r in rs)
                sys_ = statistics.median(float(r["sys"]) for r in rs)
                peak_kb = max(float(r["maxrss_kb"]) for r in rs)
                if tool == "ours (work)":
                    # Growth during the run above what the process held before it.
                    grown = max(num(r["hwm_kb"]) - num(r["rss_before_kb"]) for r in rs)
                    per_file = grown * 1024 / files
                    cpu = ("", "")
                    rss_text = "%.1f above base" % (grown / 1024)
                else:
                    per_file = peak_kb * 1024 / files
                    cpu = ("%.2f" % user, "%.2f" % sys_)
                    rss_text = "%.1f" % (peak_kb / 1024)
                ratio_work = medians.get("ours (work)", 0) / median if median > 0 else 0
                ratio_whole = medians.get("ours", 0) / median if median > 0 else 0
                out.append("| %s | %.3f | %.3f–%.3f | %s | %s | %s | %.0f | %.1f | %.0f | %.2f | %.2f |" % (
                    LABEL[tool], median, min(walls), max(walls), cpu[0], cpu[1], rss_text,
                    files / median if median > 0 else 0, size / 1e6 / median if median > 0 else 0,
                    per_file, ratio_work, ratio_whole))
            out.append("")
    out.append("\"The run's work\" is our engine from StartBackup to the return of "
               "checkFinshedBackup; \"whole process\" is the engine_run process from exec to "
               "exit (start-up, logon, the run, the closing "
               "notices, log-off). Files/s and MB/s are over the whole data set, whatever the "
               "job sent. Peak RSS is /usr/bin/time's maximum resident size; for the run's work "
               "it is the growth of the resident size during the run (VmHWM minus VmRSS before "
               "StartBackup), which is also what its bytes per file divide. Ratios below 1 mean "
               "ours was faster.")
    out.append("<!-- /SUITE -->")
    print("\n".join(out))


if __name__ == "__main__":
    main()
