// The requests that run at this moment, what each waits for, and how many processes are left to take more.
import { useQuestion } from '../data.js';
import { count, duration, time } from '../format.js';
import { html } from '../html.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';

const LIVE_MS = 1000;
const layers = { SQL: 'database', cache: 'cache', HTTP: 'external' };

const idOf = ({ process, thread }) => (thread === process ? `${process}` : `${process}/${thread}`);
const requestText = ({ method, path }) => (method ? `${method} ${path}` : path);
const running = ({ function: outermost }) => (outermost ? `PHP, ${outermost}` : 'PHP');

const Call = ({ call }) => html`${call.kind && html`<span class=${`swatch layer-${layers[call.kind]}`}></span>${call.kind} `}${call.text}${call.cut && '…'}`;

function Row({ row }) {
  const call = row.waits_for;
  return html`<tr><td class="number">${duration(row.age_us)}</td><td class="name"><a href=${`/now/${idOf(row)}`}>${requestText(row)}</a></td><td class="wide">${row.application || '(no name)'}</td>
    <td class="number wide">${count(row.counts.sql)}</td><td class="number wide">${count(row.counts.cache)}</td><td class="number wide">${count(row.counts.http)}</td>
    <td class="number">${call && duration(call.duration_us)}</td><td class="name">${call ? html`<${Call} call=${call} />` : running(row)}</td><td class="wide">${idOf(row)}</td></tr>`;
}

function Pools({ pools }) {
  if (!pools.length) return null;
  return html`<h2>Pools</h2><${Scroll} label="Pools"><table class="narrow"><thead><tr><th>Server</th><th>Pool</th><th>Of its</th><th class="number">Busy</th><th class="number">Idle</th><th class="number">Connections waiting</th></tr></thead>
    <tbody>${pools.map(pool => html`<tr key=${`${pool.server} ${pool.pool} ${pool.manager}`}><td>${pool.server}</td><td class="name">${pool.pool || '–'}</td><td>${pool.threads ? 'threads' : 'processes'}</td><td class="number">${count(pool.busy)}</td><td class="number">${count(pool.idle)}</td><td class="number">${pool.waiting === null ? '–' : count(pool.waiting)}</td></tr>`)}</tbody></table><//>`;
}

export function Now({ parameters }) {
  const answer = useQuestion('now', {}, LIVE_MS);
  const { requests = [], pools = [], findings = [] } = answer.data ?? {};
  const { app } = parameters;
  const rows = requests.filter(({ application }) => !app || application === app);
  const others = new Set(requests.map(({ application }) => application)).size > 1;
  return html`
    <div class="title"><h1>Now</h1>
      ${app ? html`<a class="chip" href="/now" aria-label=${`${app}: show all applications`}>${app} ×</a>` : others && [...new Set(requests.map(({ application }) => application))].sort().map(name => html`<a key=${name} class="chip" href=${address('/now', { app: name })}>${name}</a>`)}</div>
    <${State} answer=${answer}>
      ${findings.length > 0 && html`<section class="standsout" aria-label="Findings"><ul>${findings.map(text => html`<li key=${text}>${text}</li>`)}</ul></section>`}
      ${rows.length === 0 ? html`<p>No request is running.</p>` : html`<${Scroll} label="Requests in flight"><table>
        <thead><tr><th class="number">Age</th><th>Request</th><th class="wide">Application</th><th class="number wide">SQL</th><th class="number wide">Cache</th><th class="number wide">HTTP</th><th class="number">For</th><th>Waits for</th><th class="wide">Process</th></tr></thead>
        <tbody>${rows.map(row => html`<${Row} key=${idOf(row)} row=${row} />`)}</tbody></table><//>`}
      <${Pools} pools=${pools} />
    <//>`;
}

// One of them with its last calls, the latest first.
export function NowOne({ id }) {
  const answer = useQuestion('now', {}, LIVE_MS);
  const row = answer.data?.requests.find(request => idOf(request) === id);
  return html`<p class="crumbs"><a href="/now">Now</a></p>
    <div class="title"><h1>${row ? requestText(row) : `Process ${id}`}</h1></div>
    <${State} answer=${answer} empty=${!row && html`<p>No request is running there any more.</p>`}>${row && html`
      <dl class="facts">${[['Application', row.application || '(no name)'], ['Process', id], ['Since', `${time(row.started)}, ${duration(row.age_us)}`], ['Waits for', row.waits_for ? html`<${Call} call=${row.waits_for} />` : running(row)]].map(([name, value]) => html`<div key=${name}><dt>${name}</dt><dd>${value}</dd></div>`)}</dl>
      <h2>Last calls</h2>${row.last.length === 0 ? html`<p>None that is watched so far.</p>` : html`<${Scroll} label="Last calls"><table>
        <thead><tr><th class="number">Took</th><th>Call</th></tr></thead>
        <tbody>${row.last.map((call, at) => html`<tr key=${at}><td class="number">${duration(call.duration_us)}${call.runs && ', runs'}</td><td class="name"><${Call} call=${call} /></td></tr>`).reverse()}</tbody></table><//>`}
      <p class="dim"><code>quorbit now ${id.split('/')[0]}</code> adds PHP's own stack.</p>`}<//>`;
}
