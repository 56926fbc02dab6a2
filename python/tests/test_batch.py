"""Batches: the same pictures as kvorender makes, and what is told of them."""

import json
import threading

import pytest
from conftest import ENGINE

import kvo


def turntable(folder, count=4, **settings):
    return {"model": ENGINE, "size": "48x32", "camera": {"yaw": {"from": 0, "to": 90, "count": count}},
            "output": f"{folder}/{{camera.yaw}}.png", **settings}  # fmt: skip


def test_makes_the_pictures_that_kvorender_makes(tmp_path, kvorender):
    told = []
    reports = kvo.batch([turntable(tmp_path)], on_picture=told.append)
    assert reports == told
    assert [report["status"] for report in reports] == ["done"] * 4
    for report, yaw in zip(reports, ["0", "30", "60", "90"]):
        assert report["output"] == f"{tmp_path}/{yaw}.png" and report["seconds"] > 0
        kvorender(ENGINE, "-s", "48x32", "-c", f"yaw={yaw}", "-o", tmp_path / "alone.png")
        assert (tmp_path / "alone.png").read_bytes() == (tmp_path / f"{yaw}.png").read_bytes()


def test_reads_files_and_takes_defaults(tmp_path):
    jobs = tmp_path / "jobs.csv"
    jobs.write_text(f"output,set.Gradient.ColorTop\n{tmp_path}/a.png,#ff0000\n{tmp_path}/b.png,#00ff00\n")
    assert [r["status"] for r in kvo.batch(jobs, defaults={"size": "8x8", "frames": 2})] == ["done"] * 2
    assert [r["status"] for r in kvo.batch(jobs, defaults={"size": "8x8", "frames": 2}, resume=True)] == ["skipped"] * 2
    (tmp_path / "b.png").unlink()
    again = kvo.batch(jobs, defaults={"size": "8x8", "frames": 2}, resume=True)
    assert [r["status"] for r in again] == ["skipped", "done"]
    assert [r["status"] for r in kvo.batch(jobs, defaults={"size": "9x9"}, resume=True)] == ["done"] * 2
    rows = kvo.batch([{"output": f"{tmp_path}/c.png"}], defaults={"size": "7x5"})
    assert rows[0]["status"] == "done"


def test_what_fails_is_told_and_the_rest_is_made(tmp_path):
    jobs = [{"model": "vanished.glb", "output": f"{tmp_path}/a.png"}, {"size": "8x8", "output": f"{tmp_path}/b.png"},
            {"pipline": "x"}]  # fmt: skip
    reports = sorted(kvo.batch(jobs, retries=1), key=lambda report: report["line"])
    assert [r["status"] for r in reports] == ["failed", "done", "failed"]
    assert "vanished.glb" in reports[0]["error"] and reports[0]["attempts"] == 2
    assert "did you mean 'pipeline'?" in reports[2]["error"]


def test_mistakes_raise(tmp_path):
    with pytest.raises(kvo.Error, match="there is no option 'sise'; did you mean 'size'"):
        kvo.batch([{"output": "a.png"}], defaults={"sise": "1x1"})
    with pytest.raises(kvo.Error, match="nothing.jsonl"):
        kvo.batch(tmp_path / "nothing.jsonl")
    with pytest.raises(ValueError):
        kvo.batch([], shard=(3, 2))
    with pytest.raises(ValueError, match="name a manifest"):
        kvo.batch([], resume=True)
    with pytest.raises(kvo.Error, match="cannot write the manifest"):
        kvo.batch([{"size": "8x8", "output": f"{tmp_path}/a.png"}], manifest=tmp_path / "nowhere" / "m")


def test_a_warning_comes_once(tmp_path):
    jobs = [{"size": "8x8", "camera": "yaw=3", "output": f"{tmp_path}/{n}.png"} for n in range(3)]
    with pytest.warns(kvo.Warning, match="--camera has no effect") as caught:
        kvo.batch(jobs)
    assert len(caught) == 1


def test_a_listener_may_raise_and_may_draw(tmp_path):
    def stop(report):
        raise KeyError(report["output"])

    jobs = [{"size": "8x8", "output": f"{tmp_path}/{n}.png"} for n in range(30)]
    with pytest.raises(KeyError, match="0.png"):
        kvo.batch(jobs, on_picture=stop)
    assert len(list(tmp_path.glob("*.png"))) < 30
    shapes = []
    kvo.batch(jobs[:3], on_picture=lambda report: shapes.append(kvo.render(size=(6, 4)).shape))
    assert shapes == [(4, 6, 4)] * 3


def test_leaves_contexts_and_threads_alone(tmp_path):
    before = kvo.render(size=(8, 8))
    results = []

    def work(name):
        results.append(kvo.batch([{"size": "16x16", "frames": [1, 2, 3], "output": f"{tmp_path}/{name}-{{frames}}.png"}]))

    threads = [threading.Thread(target=work, args=(name,)) for name in "ab"]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert [report["status"] for reports in results for report in reports] == ["done"] * 6
    assert (kvo.render(size=(8, 8)) == before).all()


def test_shards_make_every_picture_once(tmp_path):
    reports = [report for part in (1, 2, 3) for report in kvo.batch([turntable(tmp_path, 7)], shard=(part, 3))]
    assert len(reports) == len({report["output"] for report in reports}) == 7
    json.dumps(reports)
