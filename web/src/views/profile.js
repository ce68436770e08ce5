// Thread profiles: ordered here, watched while they arrive, and then as flame graph and table.
import { useMemo, useState } from 'preact/hooks';
import { order } from '../api.js';
import { Flame } from '../charts/flame.js';
import { useQuestion } from '../data.js';
import { count, fullTime, milliseconds, share } from '../format.js';
import { html } from '../html.js';
import { layerName } from '../layers.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { go } from '../router.js';

const LIVE_MS = 2000;
const states = {
  waiting: 'waits for a process to ask for its configuration: up to 70 s, and it needs requests',
  running: 'runs', done: 'is complete', ended: 'was ended early', unasked: 'was taken by no process: see Status for when the last one asked',
};

// What a function's name says of the layer that its own time counts for.
const clients = [['database', /^(PDO|PDOStatement|mysqli(_stmt)?|SQLite3\w*)::|^(mysqli?|pg|oci|sqlite)_/], ['cache', /^(Memcached?|Redis\w*|Mongo\w*)::/], ['external', /^(curl|http)_|^(SoapClient|HttpRequest)::/]];
const layerOf = name => clients.find(([, pattern]) => pattern.test(name))?.[0] ?? 'code';

// The API's calls, parents before their children, as frames of the flame graph.
function framesOf({ names, calls }) {
  const frames = [], top = { children: new Map(), depth: -1 };
  for (const [parent, name, number, own, taken] of calls) {
    const above = parent < 0 ? top : frames[parent];
    const frame = { label: names[name], layer: layerOf(names[name]), taken, own, calls: number, children: new Map(), parent: above, depth: above.depth + 1 };
    above.children.set(name, frame);
    frames.push(frame);
  }
  return { frames, tops: [...top.children.values()] };
}

// By function; of a recursive one the outermost calls alone are in the time with calls.
function functionsOf(frames) {
  const sums = new Map();
  for (const frame of frames) {
    const sum = sums.get(frame.label) ?? { ...frame, taken: 0, own: 0, calls: 0 };
    sums.set(frame.label, sum);
    sum.own += frame.own;
    sum.calls += frame.calls;
    let above = frame.parent;
    while (above.parent && above.label !== frame.label) above = above.parent;
    if (!above.parent) sum.taken += frame.taken;
  }
  return [...sums.values()].sort((a, b) => b.own - a.own);
}

function Calls({ profile }) {
  const { frames, tops } = useMemo(() => framesOf(profile), [profile.events, profile.id]);
  const functions = useMemo(() => functionsOf(frames), [frames]);
  const whole = tops.reduce((sum, { taken }) => sum + taken, 0);
  if (!frames.length) return html`<p class="state">${profile.state === 'waiting' || profile.state === 'running' ? 'No call has come yet.' : 'No call came: these processes began no request in that time.'}</p>`;
  return html`<${Flame} frames=${tops} label="Functions by their time below their callers, of all requests together." />
    <h2>Functions</h2><${Scroll} label="Functions"><table><thead><tr><th>Function</th><th class="wide">Layer</th><th class="number">Calls</th><th class="number">Own time</th><th class="number wide">Share</th><th class="number">With calls</th></tr></thead>
      <tbody>${functions.slice(0, 200).map(sum => html`<tr key=${sum.label}><td class="name">${sum.label}</td><td class="wide"><i class=${`swatch layer-${sum.layer}`}></i>${layerName(sum.layer)}</td><td class="number">${count(sum.calls)}</td>
        <td class="number">${milliseconds(sum.own)}</td><td class="number wide">${share(sum.own, whole)}</td><td class="number">${milliseconds(sum.taken)}</td></tr>`)}</tbody></table><//>`;
}

export function Profile({ id }) {
  const answer = useQuestion(`profiles/${encodeURIComponent(id)}`, {}, LIVE_MS);
  const profile = answer.data;
  const open = profile && (profile.state === 'waiting' || profile.state === 'running');
  const [said, setSaid] = useState('');
  const end = () => order(`profiles/${profile.id}/end`).catch(refused => setSaid(refused.message));
  return html`<nav class="crumbs" aria-label="Path"><a href="/profiles">Profiles</a> › <span>${profile?.application ?? id}</span></nav><h1>Profile</h1>
    <${State} answer=${answer}>${profile && html`
      <p role="status">This profile of <b>${profile.application}</b> over ${count(profile.seconds)} s ${states[profile.state]}. ${open && html`<button onClick=${end}>End it</button>`} ${said}</p>
      <dl class="facts">${[['Started', profile.started && fullTime(profile.started)], ['Requests', count(profile.actions)], ['Threads', count(profile.threads)], ['Events', count(profile.events)]].filter(([, value]) => value).map(([name, value]) => html`<div key=${name}><dt>${name}</dt><dd>${value}</dd></div>`)}</dl>
      <${Calls} profile=${profile} />`}<//>`;
}

function Order({ applications }) {
  const [said, setSaid] = useState('');
  const submit = async event => {
    event.preventDefault();
    const { application, seconds } = event.target.elements;
    try {
      const { id } = await order('profiles', { application: application.value, seconds: Number(seconds.value) });
      go(`/profiles/${id}`);
    } catch (refused) {
      setSaid(refused.message);
    }
  };
  if (!applications.length) return html`<p class="state">No application is known yet: send a request to one with the agent loaded.</p>`;
  return html`<form class="tools" onSubmit=${submit}>
    <label>Application <select name="application">${applications.map(({ name }) => html`<option key=${name} value=${name}>${name || '(no name)'}</option>`)}</select></label>
    <label>Seconds <input name="seconds" type="number" min="1" max="600" defaultValue="30" required /></label>
    <button>Order a profile</button> <span class="error" role="alert">${said}</span></form>`;
}

export function Profiles() {
  const answer = useQuestion('profiles', {}, LIVE_MS), status = useQuestion('status', {});
  const rows = answer.data ?? [];
  return html`<h1>Profiles</h1>
    <p>Every function call of an application for some time, as its processes begin requests. That costs each call some microseconds while it runs.</p>
    <${State} answer=${answer.error ? answer : status}><${Order} applications=${status.data?.applications ?? []} />
    ${rows.length === 0 ? html`<p class="state">None has been ordered here. Those ordered last are kept until quorbit web ends.</p>`
    : html`<${Scroll} label="Profiles"><table><thead><tr><th>Profile</th><th>Application</th><th class="number">Seconds</th><th>State</th><th class="wide">Ordered</th></tr></thead><tbody>${rows.map(row => html`<tr key=${row.id}>
        <td><a href=${`/profiles/${row.id}`}>${row.id}</a></td><td class="name">${row.application}</td><td class="number">${count(row.seconds)}</td><td>${row.state}</td><td class="wide">${fullTime(row.ordered)}</td></tr>`)}</tbody></table><//>`}<//>`;
}
