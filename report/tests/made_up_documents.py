#!/usr/bin/env python3
"""Made-up documents of fpd-report for the tests of its page: made_up_documents.py life|hostile|large|cut >FILE

  life     a card of 40 regions in five runs: upgrade with retries, reload, a power failure, a question by hand, nothing to do
  hostile  texts that would break out of a page, a script or an XML document
  large    1,500 regions in each of five runs
  cut      what a log without times, and one without regions, leaves
"""
import json
import sys

SECOND = 1_000_000
START = 1_795_327_333 * SECOND  # 2026-11-22 06:02:13 UTC

NAMES = """IoFpga PowerCpld FanCpld BiosPrimary BiosGolden SyncFpga ClockGen PhyFirmware PortFpga0 PortFpga1 PortFpga2
PortFpga3 FabricFpga0 FabricFpga1 SwitchFpga MacsecPhy0 MacsecPhy1 MacsecPhy2 MacsecPhy3 RetimerA RetimerB RetimerC RetimerD
TimingDpll TimingServo SecureBoot TpmFirmware SsdFirmware LedCpld TempSensor VoltageCtrl0 VoltageCtrl1 VoltageCtrl2 VoltageCtrl3
OpticsMcu0 OpticsMcu1 OpticsMcu2 OpticsMcu3 DebugCpld MgmtSwitch""".split()


def line(number, time, level, tag, text, place="brd_intf_auto_fpd_upgrade_handler:153", thread=3):
    return {"number": number, "time": time, "process": 3, "thread": thread, "level": level, "component": "FPD", "tag": tag,
            "place": place, "text": text}


def region(name, outcome, reason, **more):
    """A region with every key that the real document has."""
    made = {"name": name, "running": "1.0.0", "programmed": "1.0.0", "packaged": "1.0.0", "image": f"/pkg/fpd/{name}.bin",
            "md5": "d41d8cd98f00b204e9800998ecf8427e", "verdict": "no upgrade needed", "upgrade_needed": False,
            "capabilities": 7, "queue": None, "dependency": "", "state": "FPD Upgrade not needed", "retries": 0,
            "attempts": [], "transitions": [], "outcome": outcome, "reason": reason, "lines": [], "lines_left_out": 0}
    made.update(more)
    return made


def attempt(begin, end, how, progress=100, reason=""):
    return {"begin": begin, "end": end, "progress": progress, "how": how, "reason": reason}


def transition(time, to, before=""):
    return {"time": time, "from": before, "to": to, "clock": (time - START) // SECOND + 23000}


def event(time, kind, text=""):
    return {"time": time, "kind": kind, "text": text}


def run(number, begin, end, regions, **more):
    bad = ("failed", "given_up", "refused", "unfinished", "planned")
    counts = {}
    for one in regions:
        counts[one["outcome"]] = counts.get(one["outcome"], 0) + 1
    told = ", ".join(f"{count} {outcome.replace('_', ' ')}" for outcome, count in counts.items())
    made = {"source": "fpd.log", "number": number, "process": 3, "begin": begin, "end": end, "upgrades": False,
            "finished": True, "reload_requested": False, "skipped_by_marker": False, "disabled": False, "stage": "",
            "failure": "", "regions": regions, "events": [], "errors": [], "lines": 60 * len(regions), "unknown_lines": 0,
            "watchdog_punches": 0, "left_out": 0, "unknown": [],
            "verdict": f"run {number}, {len(regions)} regions: {told}", "well": not any(o in counts for o in bad)}
    made.update(more)
    if made["failure"]:
        made["well"] = False
    return made


def document(runs):
    return {"schema": "fpd-report", "version": 1, "runs": runs}


def states(queued, tries, end):
    """The transitions of a planned region; `end` is the last state."""
    told = [transition(queued, "FPD Queued for Upgrade", "FPD Description Received")]
    for one in tries:
        told += [transition(one["begin"], "FPD worker created for Upgrade", "FPD Queued for Upgrade"),
                 transition(one["begin"] + 300_000, "FPD Upgrade Started", "FPD worker created for Upgrade"),
                 transition(one["begin"] + 1_300_000, "FPD Upgrade Progressing", "FPD Upgrade Started")]
        if one["end"]:
            last = one is tries[-1]
            told.append(transition(one["end"], end if last else "FPD Queued for Upgrade", "FPD Upgrade Progressing"))
    return told


def upgraded(name, queue, queued, begin, seconds, before, after):
    tries = [attempt(begin, begin + seconds * SECOND, "done")]
    return region(name, "upgraded", f"{after} is programmed", running=before, programmed=before, packaged=after, queue=queue,
                  upgrade_needed=True, verdict="upgrade needed", state="FPD Upgrade Done", attempts=tries,
                  transitions=states(queued, tries, "FPD Upgrade Done"),
                  lines=[line(180 + queue, tries[0]["begin"], "info", "FpdUpgHdl", f"Started Worker thread for FPD {name}",
                              "brd_intf_auto_fpd_upgrade_worker:215", 12),
                         line(640 + queue, tries[0]["end"], "info", "FpdUpgResponseDone",
                              f"FPD {name} state 'FPD Upgrade Done' updated in the sequence queue {queue}")])


def second_attempt(name, queue, queued, begin, first, seconds, before, after):
    how, length, progress, reason = first
    again = begin + length * SECOND + SECOND
    tries = [attempt(begin, begin + length * SECOND, how, progress, reason), attempt(again, again + seconds * SECOND, "done")]
    tag = "ChkFpdUpgProgressingMaxTransTimeOut" if how == "stuck" else "FpdUpgHdlUpgradeFail"
    return region(name, "upgraded_at_second_attempt", f"{after} is programmed; the first attempt: {reason}", running=before,
                  programmed=before, packaged=after, queue=queue, upgrade_needed=True, verdict="upgrade needed", retries=1,
                  state="FPD Upgrade Done", attempts=tries, transitions=states(queued, tries, "FPD Upgrade Done"),
                  lines=[line(310, tries[0]["end"], "error", tag, f"FPD {name} {reason}"),
                         line(312, tries[0]["end"], "info", "ChkFpdUpgProgressingTransRetry",
                              f"FPD {name} would be queued to upgrade upg_retry 1"),
                         line(700, tries[1]["end"], "info", "FpdUpgResponseDone",
                              f"FPD {name} state 'FPD Upgrade Done' updated in the sequence queue {queue}")])


def stuck_twice(name, queue, queued, begin, before, after):
    reason = "stuck in 'FPD Upgrade Progressing' for 180 s"
    tries = [attempt(begin, begin + 182 * SECOND, "stuck", 40, reason),
             attempt(begin + 183 * SECOND, begin + 365 * SECOND, "stuck", 40, reason)]
    return region(name, "given_up", f"{reason}, twice", running=before, programmed=before, packaged=after, queue=queue,
                  upgrade_needed=True, verdict="upgrade needed", retries=1, state="FPD Can't be Upgraded", attempts=tries,
                  transitions=states(queued, tries, "FPD Can't be Upgraded"),
                  lines=[line(410 + 300 * i, one["end"], "error", "ChkFpdUpgProgressingMaxTransTimeOut",
                              f"FPD {name} Upgrade stuck in the state 'FPD Upgrade Progressing' since 182 time now vs. max 180")
                         for i, one in enumerate(tries)]
                  + [line(711, tries[1]["end"], "debug", "UpdateFpdTransitionState",
                          f"FPD {name} transitioning state from 'FPD Upgrade Progressing' to 'FPD Can't be Upgraded' at 23365",
                          "brd_intf_auto_fpd_upgrade_state:139")])


def current(name, version):
    return region(name, "current", f"{version} is programmed and packaged", running=version, programmed=version,
                  packaged=version)


def card_events(begin, end, punches):
    return [event(begin + 2 * SECOND, "run_start", "upgrade of 26 FPDs"),
            event(begin + 2 * SECOND + 10_000, "led", "blink green"),
            event(begin + 10 * SECOND, "watchdog_punch", "first of " + str(punches)),
            event(begin + 11 * SECOND, "flash_mounted", "/mnt/obfl"),
            event(end - 8 * SECOND, "watchdog_punch", "last of " + str(punches)),
            event(end - 4 * SECOND, "led", "on green"),
            event(end - 3 * SECOND, "flash_released"),
            event(end - 2 * SECOND, "run_end"),
            event(end - SECOND, "activation", "reload type 2")]


QUEUE_OF = {**{name: 0 for name in NAMES[:8]}, **{name: 1 for name in NAMES[8:18]}, **{name: 2 for name in NAMES[18:23]},
            **{name: 3 for name in NAMES[23:26]}}


def first_boot():
    begin = START
    regions = []
    for index, name in enumerate(NAMES):
        before, after = f"1.{index % 4}.0", f"1.{index % 4 + 1}.{index % 3}"
        queue = QUEUE_OF.get(name)
        queued = begin + 900_000 + index * 20_000
        if queue is None:
            regions.append(current(name, before))
        elif name == "PhyFirmware":
            regions.append(stuck_twice(name, queue, queued, begin + 3 * SECOND, before, after))
        elif name == "SyncFpga":
            regions.append(second_attempt(name, queue, queued, begin + 3 * SECOND,
                                          ("failed", 31, 60, "write error at 0x3f000: no acknowledge"), 58, before, after))
        elif name == "MacsecPhy1":
            regions.append(second_attempt(name, queue, queued, begin + 369 * SECOND,
                                          ("stuck", 62, 0, "stuck in 'FPD Upgrade Started' for 60 s"), 70, before, after))
        elif name == "RetimerD":
            regions.append(region(name, "given_up", "waits for FPD PhyFirmware, which was given up", running=before,
                                  programmed=before, packaged=after, queue=2, upgrade_needed=True, verdict="upgrade needed",
                                  dependency="PhyFirmware", state="FPD Can't be Upgraded",
                                  transitions=[transition(queued, "FPD Queued for Upgrade", "FPD Description Received"),
                                               transition(begin + 503 * SECOND, "FPD Can't be Upgraded",
                                                          "FPD Queued for Upgrade")],
                                  lines=[line(900, begin + 503 * SECOND, "error", "FpdUpgDependencyFail",
                                              "FPD RetimerD dependent FPD PhyFirmware was not upgraded")]))
        elif name == "SecureBoot":
            tries = [attempt(begin + 545 * SECOND, begin + 560 * SECOND, "failed", 20, "image signature is not accepted"),
                     attempt(begin + 561 * SECOND, begin + 577 * SECOND, "failed", 20, "image signature is not accepted")]
            regions.append(region(name, "failed", "image signature is not accepted", running=before, programmed=before,
                                  packaged=after, queue=3, upgrade_needed=True, verdict="upgrade needed", retries=1,
                                  state="FPD Upgrade Failed", attempts=tries,
                                  transitions=states(queued, tries, "FPD Upgrade Failed"),
                                  lines=[line(950 + 20 * i, one["end"], "error", "FpdUpgHdlUpgradeFail",
                                              f"FPD {name} upgrade failed, image signature is not accepted",
                                              "brd_intf_auto_fpd_upgrade_worker:201", 40) for i, one in enumerate(tries)]))
        else:
            start = begin + (3, 369, 503, 545)[queue] * SECOND + index * 40_000
            regions.append(upgraded(name, queue, queued, start, 20 + index * 7 % 45 + 10 * (queue == 0), before, after))
    for name, reason in (("TpmFirmware", "md5 checksum validation failed, /pkg/fpd/TpmFirmware.bin"),
                         ("SsdFirmware", "running 1.3.0 is older than 2.0.0, the oldest that can be upgraded")):
        one = regions[NAMES.index(name)]
        one.update(outcome="refused", reason=reason, upgrade_needed=True, packaged="2.4.0", state="FPD Can't be Upgraded",
                   lines=[line(150, begin + 800_000, "error", "FpdCantBeUpgraded", f"FPD {name} {reason}",
                               "brd_intf_auto_fpd_upgrade_init:144")])
    regions[NAMES.index("DebugCpld")].update(outcome="not_considered", reason="automatic upgrade is not supported", packaged="")
    end = begin + 607 * SECOND
    return run(1, begin, end, regions, upgrades=True, reload_requested=True, watchdog_punches=58,
               events=card_events(begin, end, 58),
               errors=[line(88, begin + 700_000, "error", "BrdIntfLedStateColorGetFail",
                            "BRD LED state and color get failed error bus busy", "brd_intf_auto_fpd_upgrade_led:44")],
               verdict="run 1, 2026-11-22 06:02:13, 40 regions: 21 upgraded, 2 upgraded at the second attempt, 11 current, "
                       "1 failed, 2 given up, 2 refused, 1 not considered; reload requested")


def later_boot(number, begin, special, **more):
    """A run after the first, in which all but `special` (name: region) are current."""
    regions = []
    for index, name in enumerate(NAMES):
        version = f"1.{index % 4 + 1}.{index % 3}" if name in QUEUE_OF else f"1.{index % 4}.0"
        regions.append(special.get(name) or current(name, version))
    return run(number, begin, more.pop("end"), regions, **more)


def life():
    second = START + 700 * SECOND
    queued, work = second + 900_000, second + 3 * SECOND
    after_reload = {
        "PhyFirmware": stuck_twice("PhyFirmware", 0, queued, work, "1.3.0", "1.4.1"),
        "SecureBoot": second_attempt("SecureBoot", 3, queued, work + 367 * SECOND,
                                     ("failed", 16, 20, "image signature is not accepted"), 33, "1.1.0", "1.2.1"),
        "RetimerD": region("RetimerD", "given_up", "waits for FPD PhyFirmware, which was given up", queue=2,
                           running="1.2.0", programmed="1.2.0", packaged="1.3.1", upgrade_needed=True,
                           dependency="PhyFirmware", state="FPD Can't be Upgraded",
                           transitions=[transition(queued, "FPD Queued for Upgrade", "FPD Description Received"),
                                        transition(work + 366 * SECOND, "FPD Can't be Upgraded", "FPD Queued for Upgrade")]),
    }
    third = second + 1000 * SECOND
    tries = [attempt(third + 3 * SECOND, 0, "unfinished", 70)]
    cut_off = {"PhyFirmware": region("PhyFirmware", "unfinished", "the log ends while it was upgraded, at 70 percent", queue=0,
                                     running="1.3.0", programmed="1.3.0", packaged="1.4.1", upgrade_needed=True,
                                     state="FPD Upgrade Progressing", attempts=tries,
                                     transitions=states(third + 900_000, tries, ""),
                                     lines=[line(1210, third + 40 * SECOND, "debug", "FpdUpgradeProgress",
                                                 "FPD PhyFirmware upgrade progressing percent 70")]),
               "RetimerD": region("RetimerD", "unfinished", "the log ends while it waited for FPD PhyFirmware", queue=2,
                                  running="1.2.0", programmed="1.2.0", packaged="1.3.1", upgrade_needed=True,
                                  dependency="PhyFirmware", state="FPD Queued for Upgrade",
                                  transitions=[transition(third + 900_000, "FPD Queued for Upgrade",
                                                          "FPD Description Received")])}
    fourth = third + 4000 * SECOND
    asked = {name: region(name, "planned", f"would be upgraded to {after}", queue=queue, running=before, programmed=before,
                          packaged=after, upgrade_needed=True, state="FPD Queued for Upgrade",
                          transitions=[transition(fourth + 150_000, "FPD Queued for Upgrade", "FPD Description Received")])
             for name, queue, before, after in (("PhyFirmware", 0, "1.3.0", "1.4.1"), ("RetimerD", 2, "1.2.0", "1.3.1"))}
    fifth = fourth + 500 * SECOND
    repaired = {"PhyFirmware": upgraded("PhyFirmware", 0, fifth + 900_000, fifth + 3 * SECOND, 95, "1.3.0", "1.4.1"),
                "RetimerD": upgraded("RetimerD", 2, fifth + 900_000, fifth + 99 * SECOND, 41, "1.2.0", "1.3.1")}
    repaired["RetimerD"]["dependency"] = "PhyFirmware"
    return document([
        first_boot(),
        later_boot(2, second, after_reload, end=second + 430 * SECOND, upgrades=True, reload_requested=True,
                   watchdog_punches=42, events=card_events(second, second + 430 * SECOND, 42)),
        later_boot(3, third, cut_off, end=third + 40 * SECOND, upgrades=True, finished=False, watchdog_punches=3,
                   unknown_lines=1, unknown=["[2026-11-22 06:31:13.91 UTC] [3:3] [FPD] [DEB"],
                   events=card_events(third, third + 60 * SECOND, 3)[:4]),
        later_boot(4, fourth, asked, end=fourth + 210_000),
        later_boot(5, fifth, repaired, end=fifth + 148 * SECOND, upgrades=True, reload_requested=True, watchdog_punches=14,
                   events=card_events(fifth, fifth + 148 * SECOND, 14)),
    ])


HOSTILE = ["</script><img src=x onerror=\"document.title='broken'\">", "<!--<script>document.title='broken'</script>",
           "\"'`><svg onload=document.title='broken'>", "]]>&amp;&lt;", "\x1b[31mred\x07\x00", "right\u202eleft\u2066",
           "\u2028line\u2029break", "{{constructor}}${document.title='broken'}", "__proto__", "constructor", "x" * 300]


def hostile():
    begin = START
    regions = []
    for index, text in enumerate(HOSTILE):
        one = stuck_twice(text, index % 2, begin + 500_000, begin + 2 * SECOND, text, text)
        one.update(reason=text, verdict=text, image=text, md5=text, state=text, dependency=text)
        for record in one["lines"]:
            record.update(component=text, tag=text, place=text, text=text + "\nsecond line")
        for before in one["transitions"]:
            before.update({"from": text, "to": text})
        for before in one["attempts"]:
            before["reason"] = text
        regions.append(one)
        regions.append(region(text + "2", "refused", text))
    end = begin + 400 * SECOND
    bad = HOSTILE[0]
    return document([run(1, begin, end, regions, source=bad, stage=bad, failure=bad, upgrades=True, unknown=list(HOSTILE),
                         unknown_lines=len(HOSTILE), verdict=bad, watchdog_punches=3,
                         events=[event(begin + i * 30 * SECOND, kind, bad) for i, kind in
                                 enumerate(("run_start", "led", "watchdog_punch", "flash_failed", "activation"))],
                         errors=[line(1, begin, "error", bad, bad, bad)],
                         flash_events=[{"time": begin, "kind": "failed", "region": bad, "version": bad, "running": bad,
                                        "programmed": bad, "text": bad}])])


def large(count=1500, runs=5):
    made = []
    for number in range(1, runs + 1):
        begin = START + number * 4000 * SECOND
        regions = []
        for index in range(count):
            name, kind = f"Region{index:04}", (index * 7 + number) % 50
            start = begin + (3 + index) * SECOND
            if kind == 0:
                regions.append(stuck_twice(name, index % 8, begin + SECOND, start, "1.0.0", "1.1.0"))
            elif kind == 1:
                regions.append(second_attempt(name, index % 8, begin + SECOND, start, ("failed", 20, 50, "write error"), 30,
                                              "1.0.0", "1.1.0"))
            elif kind < 30:
                regions.append(upgraded(name, index % 8, begin + SECOND, start, 20 + index % 40, "1.0.0", "1.1.0"))
            else:
                regions.append(current(name, "1.0.0"))
        end = begin + (count + 400) * SECOND
        made.append(run(number, begin, end, regions, upgrades=True, reload_requested=True, watchdog_punches=190,
                        events=card_events(begin, end, 190)))
    return document(made)


def cut():
    timeless = region("IoFpga", "unfinished", "the log ends while it was upgraded", queue=0,
                      attempts=[attempt(0, 0, "unfinished", 10)])
    return document([run(1, 0, 0, [timeless, region("FanCpld", "not_considered", "not at boot")], finished=False),
                     run(2, START, START, [], failure="Failed to get Card BRD Group Type rc -2",
                         verdict="run 2: Failed to get Card BRD Group Type rc -2")])


MADE = {"life": life, "hostile": hostile, "large": large, "cut": cut}

if __name__ == "__main__":
    if len(sys.argv) != 2 or sys.argv[1] not in MADE:
        sys.exit(__doc__)
    json.dump(MADE[sys.argv[1]](), sys.stdout, ensure_ascii=False)
