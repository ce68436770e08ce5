// What the applications ask: a map of databases, caches, other applications and outside hosts; the same as tables.
import { ServiceMap } from '../charts/map.js';
import { useQuestion } from '../data.js';
import { count, duration } from '../format.js';
import { html } from '../html.js';
import { layerName } from '../layers.js';
import { rangeOf, SumRange } from '../parts/range.js';
import { Scroll } from '../parts/scroll.js';
import { State } from '../parts/state.js';
import { address } from '../router.js';
import { SumsList } from './sums.js';

const LIVE_MS = 15000;

function Edges({ edges }) {
  return html`<${Scroll} label="Who calls whom"><table><thead><tr><th>Application</th><th>Calls</th><th class="wide">Layer</th><th class="number">Time</th><th class="number wide">Count</th><th class="number wide">Average</th><th class="number">p95</th><th class="number">Failed</th></tr></thead>
    <tbody>${edges.map((edge, at) => html`<tr key=${at}><td class="name">${edge.from || '(no name)'}</td><td class="name">${edge.to}${edge.application && html` <span class="dim">(${edge.application})</span>`}</td><td class="wide"><i class=${`swatch layer-${edge.kind}`}></i>${layerName(edge.kind)}</td>
      <td class="number">${duration(edge.total_us)}</td><td class="number wide">${count(edge.count)}</td><td class="number wide">${duration(edge.average_us)}</td><td class="number">${duration(edge.p95_us)}</td><td class="number">${edge.errors ? html`<span class="bad">${count(edge.errors)}</span>` : edge.kind === 'external' ? '0' : '–'}</td></tr>`)}</tbody></table><//>`;
}

export function Services({ parameters }) {
  const range = rangeOf(parameters), { app } = parameters;
  const answer = useQuestion('services', { app, ...range }, LIVE_MS);
  const edges = answer.data?.edges ?? [];
  return html`<div class="title"><h1>Services</h1>
      ${app && html`<a class="chip" href=${address('/services', { ...parameters, app: '' })} aria-label=${`${app}: show all applications`}>${app} ×</a>`}
      <${SumRange} path="/services" parameters=${parameters} /></div>
    <${State} answer=${answer} empty=${edges.length === 0 && html`<p>No statement, cache operation or outgoing call in this range.</p><p>Choose a longer one, or send a request to an application with the agent loaded.</p>`}>
      ${answer.data && html`<${ServiceMap} answer=${answer.data} range=${range} /><h2>Who calls whom</h2><${Edges} edges=${edges} />`}
      ${['external', 'cache'].map(kind => html`<section key=${kind}><h2>${kind === 'cache' ? 'Caches' : 'Outgoing calls'}</h2><${SumsList} kind=${kind} parameters=${parameters} range=${range} /></section>`)}<//>`;
}
