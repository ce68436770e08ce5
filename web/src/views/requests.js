// The newest requests of a range, one line each.
import { html } from '../html.js';
import { useQuestion } from '../data.js';
import { actionName, count, duration, time } from '../format.js';
import { LayerBar } from '../parts/layers.js';
import { Range } from '../parts/range.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';

const LIVE_MS = 5000;

const durationOf = row => row.database_us + row.cache_us + row.external_us + row.code_us || row.duration_ms * 1000;

function Row({ row, longest, fleet }) {
  const us = durationOf(row);
  return html`<tr>
    <td class="number wide"><a href=${address(`/requests/${row.id}`)}>${row.id}</a></td>
    <td>${time(row.time)}</td>
    ${fleet && html`<td class="name"><a href=${address('/requests', { host: row.host_name })}>${row.host_name}</a></td>`}
    <td class="wide"><a href=${address('/requests', { app: row.application })}>${row.application || '(no name)'}</a></td>
    <td class="name"><a href=${address(`/requests/${row.id}`)}>${actionName(row.action)}</a>${row.path && html` <span class="dim">${row.path}</span>`}</td>
    <td class="number">${duration(us)}</td>
    <td class="bar wide"><span class="length" style=${{ width: `${Math.max(2, 100 * us / longest)}%` }}><${LayerBar} entry=${row} /></span></td>
    <td class="number wide">${row.statement_count === null ? '–' : count(row.statement_count)}</td>
    <td class="number wide">${row.status ?? '–'}</td>
    <td>${row.has_error && html`<span class="bad">Error</span>`}</td>
  </tr>`;
}

// What else narrows the list, in words; each is taken away by a click.
const narrowings = [
  ['name', value => actionName(value.replace(/\[(.)\]/g, '$1'))], ['path', value => value], ['slower', value => `from ${duration(Number(value))}`],
  ['faster', value => `below ${duration(Number(value))}`], ['errors', () => 'with errors'], ['sort', () => 'slowest first'],
];

export function Requests({ parameters, fleet }) {
  const { n = '100', ...asked } = parameters;
  const { app } = parameters;
  const answer = useQuestion('requests', { ...asked, n }, LIVE_MS);
  const rows = answer.data ?? [];
  const longest = Math.max(1, ...rows.map(durationOf));
  return html`
    <div class="title"><h1>Requests</h1>
      ${app && html`<a class="chip" href=${address('/requests', { ...parameters, app: '' })} aria-label=${`${app}: show all applications`}>${app} ×</a>`}
      ${narrowings.filter(([key]) => parameters[key]).map(([key, words]) => html`<a key=${key} class="chip" href=${address('/requests', { ...parameters, [key]: '' })}>${words(parameters[key])} ×</a>`)}
      ${!parameters.errors && html`<a class="chip" href=${address('/requests', { ...parameters, errors: 1 })}>with errors</a>`}
      ${!parameters.sort && html`<a class="chip" href=${address('/requests', { ...parameters, sort: 'duration' })}>slowest first</a>`}
      <${Range} path="/requests" parameters=${parameters} /></div>
    <${State} answer=${answer} empty=${rows.length === 0 && html`<p>No request in this range.</p>
      <p>Choose a longer one, or send a request to an application with the agent loaded. <code>quorbit status</code> says what to check when nothing comes.</p>`}>
      <${Scroll} label="List of requests"><table>
        <thead><tr><th class="number wide">Id</th><th>Time</th>${fleet && html`<th>Host</th>`}<th class="wide">Application</th><th>Action</th><th class="number">Took</th><th class="wide">Where the time went</th><th class="number wide">SQL</th><th class="number wide">Status</th><th><span class="hidden">Error</span></th></tr></thead>
        <tbody>${rows.map(row => html`<${Row} key=${row.id} row=${row} longest=${longest} fleet=${fleet} />`)}</tbody>
      </table><//>
      ${rows.length >= Number(n) && html`<p><a href=${address('/requests', { ...parameters, n: Math.min(1000, n * 5) })}>Show more</a></p>`}
    <//>`;
}
