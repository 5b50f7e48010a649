#!/usr/bin/env python3
"""Fills a new account's state for the GET /v1/state benchmark: 1,000
schedules, then 10,000 manual runs spread over them (they fail at once
without an AI provider, which is what a long history looks like). Prints the
account's ID token on the last line."""
import http.client, json, sys, urllib.parse, uuid

url = sys.argv[1]
host = urllib.parse.urlparse(url)
conn = http.client.HTTPConnection(host.hostname, host.port)
conn.request("GET", "/v1/config"); api_key = json.loads(conn.getresponse().read())["apiKey"]
conn.request("POST", "/v1/accounts:signUp?key=" + api_key,
             json.dumps({"email": f"bench-{uuid.uuid4().hex[:8]}@example.jp", "password": "benchmark password"}),
             {"Content-Type": "application/json"})
token = json.loads(conn.getresponse().read())["idToken"]
headers = {"Authorization": "Bearer " + token, "Content-Type": "application/json"}
ids = []
for i in range(1000):
    sid = str(uuid.uuid4())
    body = json.dumps({"id": sid, "title": f"Schedule {i}", "prompt": "Summarise", "firstRun": 1893456000 + i,
                       "timeZoneID": "Asia/Tokyo", "recurrence": "weekly", "isPaused": False})
    conn.request("PUT", "/v1/schedules", body, headers); r = conn.getresponse(); r.read()
    assert r.status == 200, r.status
    ids.append(sid)
for i in range(10000):
    conn.request("POST", "/v1/run", json.dumps({"scheduleID": ids[i % 1000]}), headers); r = conn.getresponse(); r.read()
    assert r.status == 200, r.status
conn.request("GET", "/v1/state", headers=headers); r = conn.getresponse(); state = json.loads(r.read())
print(f"state: {len(state['schedules'])} schedules, {len(state['runs'])} runs listed")
print(token)
