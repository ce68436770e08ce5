// What ran in a range of time, how it went, and the actions that took most of it.
import { useQuestion } from '../data.js';
import { actionName, count, duration, share } from '../format.js';
import { html } from '../html.js';
import { LayerBar, LayerLegend } from '../parts/layers.js';
import { OverTime, PoolsOverTime } from '../parts/overtime.js';
import { rangeOf, SumRange } from '../parts/range.js';
import { Scroll } from '../parts/scroll.js';
import { Sparkline } from '../parts/sparkline.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';

const LIVE_MS = 10000;

function Numbers({ all }) {
  const facts = [['Requests', count(all.count)], ['Median', duration(all.p50_us)], ['p95', duration(all.p95_us)], ['p99', duration(all.p99_us)], ['Errors', `${count(all.errors)} (${share(all.errors, all.count)})`]];
  return html`<dl class="facts big">${facts.map(([name, value]) => html`<div key=${name}><dt>${name}</dt><dd><b>${value}</b></dd></div>`)}</dl>`;
}

function ActionRow({ row, whole, range }) {
  const href = row.id ? address(`/actions/${row.id}`, range) : undefined;
  return html`<tr><td class="name">${href ? html`<a href=${href}>${actionName(row.name)}</a>` : row.name}</td><td class="wide">${row.application}</td>
    <td class="number">${duration(row.total_us)}</td><td class="number wide">${share(row.total_us, whole)}</td><td class="number">${count(row.count)}</td><td class="number wide">${duration(row.average_us)}</td>
    <td class="number wide">${duration(row.p95_us)}</td><td class="number">${row.errors ? html`<span class="bad">${count(row.errors)}</span>` : '0'}</td><td class="bar wide"><${LayerBar} entry=${row} /></td><td class="wide"><${Sparkline} trend=${row.trend} /></td></tr>`;
}

// The hosts of a fleet, the busiest first; each leads to what ran on it.
function Hosts({ rows, whole, parameters }) {
  if (rows.length < 2) return null;
  return html`<h2>Hosts</h2><${Scroll} label="Hosts"><table><thead><tr><th>Host</th><th class="number">Time</th><th class="number wide">Share</th><th class="number">Count</th><th class="number wide">Average</th><th class="number wide">p95</th><th class="number">Errors</th><th class="wide">Where the time went</th></tr></thead>
    <tbody>${rows.map(row => html`<tr key=${row.name}><td class="name"><a href=${address('/overview', { ...parameters, host: row.name })}>${row.name}</a></td><td class="number">${duration(row.total_us)}</td><td class="number wide">${share(row.total_us, whole)}</td><td class="number">${count(row.count)}</td>
      <td class="number wide">${duration(row.average_us)}</td><td class="number wide">${duration(row.p95_us)}</td><td class="number">${row.errors ? html`<span class="bad">${count(row.errors)}</span>` : '0'}</td><td class="bar wide"><${LayerBar} entry=${row} /></td></tr>`)}</tbody></table><//>`;
}

// Hosts with their pools: how much of each was at work.
function Machines({ machines }) {
  if (!machines?.length) return null;
  const one = new Intl.NumberFormat(undefined, { minimumFractionDigits: 1, maximumFractionDigits: 1 });
  const used = ({ memory_bytes: all, available_bytes: free }) => (all > 0 ? share(all - free, all) : '–');
  return html`<h2>Hosts and pools</h2><${Scroll} label="Hosts and pools"><table class="narrow"><thead><tr><th>Host</th><th>Pool</th><th class="number">Busy on average</th><th class="number">At most</th><th class="number">Idle</th><th class="number">Waiting at most</th><th class="number">Load</th><th class="number">Memory used</th></tr></thead>
    <tbody>${machines.map(machine => html`<tr key=${machine.host}><th scope="row" class="name">${machine.host}</th><td></td><td></td><td></td><td></td><td></td><td class="number">${one.format(machine.load)}</td><td class="number">${used(machine)}</td></tr>
      ${machine.pools.map(pool => html`<tr key=${`${machine.host} ${pool.name}`}><td></td><td class="name">${pool.name}</td><td class="number">${one.format(pool.busy)}</td><td class="number">${count(pool.most_busy)}</td><td class="number">${one.format(pool.idle)}</td><td class="number">${count(pool.most_waiting)}</td><td></td><td></td></tr>`)}`)}</tbody></table><//>`;
}

export function Overview({ parameters }) {
  const range = rangeOf(parameters), { app } = parameters;
  const series = useQuestion('series', { by: 'application', app, pools: 1, ...range }, LIVE_MS);
  const top = useQuestion('top', { by: 'action', app, n: 50, ...range }, LIVE_MS);
  const applications = useQuestion('top', { by: 'application', ...range }, LIVE_MS);
  const hosts = useQuestion('top', { by: 'host', app, ...range }, LIVE_MS);
  const answer = [series, top, applications].find(({ error }) => error) ?? [series, top, applications].find(({ data }) => !data) ?? top;
  const all = top.data?.all;
  const empty = all && !all.count && html`<p>No request in this range.</p><p>Choose a longer one, or send a request to an application with the agent loaded. <code>quorbit status</code> says what to check when nothing comes.</p>`;
  return html`
    <div class="title"><h1>Overview</h1>
      ${app && html`<a class="chip" href=${address('/overview', { ...parameters, app: '' })} aria-label=${`${app}: show all applications`}>${app} ×</a>`}
      <${SumRange} path="/overview" parameters=${parameters} /></div>
    <${State} answer=${answer} empty=${empty}>${series.data && all && applications.data && html`
      <${Numbers} all=${all} />
      <div class="whereto"><${LayerBar} entry=${all} /><${LayerLegend} entry=${all} /></div>
      <${OverTime} series=${series.data} path="/overview" parameters=${parameters} />
      ${!app && applications.data.rows.length > 1 && html`<p class="applications">${applications.data.rows.map(row => html`<a key=${row.id} class="chip" href=${address('/overview', { ...parameters, app: row.application || row.name })}><span class="cut" title=${row.application || row.name}>${row.application || row.name}</span> <span class="dim">${share(row.total_us, all.total_us)}</span></a>`)}</p>`}
      <h2>Actions by time</h2>
      <${Scroll} label="Actions"><table><thead><tr><th>Action</th><th class="wide">Application</th><th class="number">Time</th><th class="number wide">Share</th><th class="number">Count</th><th class="number wide">Average</th><th class="number wide">p95</th><th class="number">Errors</th><th class="wide">Where the time went</th><th class="wide">Trend</th></tr></thead>
        <tbody>${top.data.rows.map(row => html`<${ActionRow} key=${`${row.id} ${row.application}`} row=${row} whole=${all.total_us} range=${range} />`)}</tbody></table><//>
      ${top.data.left_out > 0 && html`<p class="dim">and ${count(top.data.left_out)} more</p>`}
      ${hosts.data && html`<${Hosts} rows=${hosts.data.rows} whole=${all.total_us} parameters=${parameters} />`}
      <${Machines} machines=${hosts.data?.machine} />
      ${series.data.machine && html`<${PoolsOverTime} series=${series.data} path="/overview" parameters=${parameters} />`}`}
    <//>`;
}
