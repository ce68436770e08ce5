// The page: who may see it, the frame around every view, and which view an address means.
import './style.css';
import { render } from 'preact';
import { useEffect, useState } from 'preact/hooks';
import { get, order } from './api.js';
import { html } from './html.js';
import { address, go, useAddress } from './router.js';
import { zone } from './format.js';
import { HostChoice } from './parts/host.js';
import { beginWith } from './parts/range.js';
import { Login } from './views/login.js';
import { keyView } from './views/key.js';
import { Overview } from './views/overview.js';
import { Now, NowOne } from './views/now.js';
import { Compare } from './views/compare.js';
import { Profile, Profiles } from './views/profile.js';
import { Radar } from './views/radar.js';
import { Services } from './views/services.js';
import { Settings } from './views/settings.js';
import { Errors, Queries } from './views/sums.js';
import { Status } from './views/status.js';
import { Requests } from './views/requests.js';
import { Request } from './views/request.js';

// Views by the first part of the path; those with a title stand in the navigation, but for what one host alone can tell where
// the page reads the store of a fleet. The rest of the path is `id`.
const views = [
  { path: 'overview', title: 'Overview', view: Overview },
  { path: 'now', title: 'Now', view: Now, one: NowOne, ofOneHost: true },
  { path: 'requests', title: 'Requests', view: Requests, one: Request },
  { path: 'queries', title: 'Queries', view: Queries, one: keyView('query') },
  { path: 'errors', title: 'Errors', view: Errors, one: keyView('error') },
  { path: 'services', title: 'Services', view: Services, one: keyView('external') },
  { path: 'compare', title: 'Compare', view: Compare },
  { path: 'profiles', title: 'Profiles', view: Profiles, one: Profile, ofOneHost: true },
  { path: 'radar', title: 'Radar', view: Radar, ofOneHost: true },
  { path: 'status', title: 'Status', view: Status, ofOneHost: true },
  { path: 'settings', title: 'Settings', view: Settings, ofOneHost: true },
  { path: 'actions', one: keyView('action') },
  { path: 'caches', one: keyView('cache') },
];

// An address of one host's page, opened where the page is that of a fleet.
function OfOneHost() {
  return html`<h1>A host itself has this page</h1><p>The store of a fleet does not hold it: run <code>quorbit web</code> there, without <code>--store</code>.</p>`;
}

const titleOf = view => (view?.title ? `${view.title} – Quorbit` : 'Quorbit');

function Frame({ about: { sample, fleet }, onLeave }) {
  const { path, parameters } = useAddress();
  const [, first, ...rest] = path.split('/');
  const view = views.find(entry => entry.path === first) ?? (first === '' || first === 'login' ? views[0] : undefined);
  const id = rest.length ? decodeURIComponent(rest.join('/')) : '';
  const ofHost = id ? view?.one : view?.view, View = fleet && view?.ofOneHost ? OfOneHost : ofHost;
  useEffect(() => {
    document.title = titleOf(view);
  }, [path]);
  const leave = async () => {
    await order('session/end').catch(() => {});
    onLeave();
  };
  return html`
    <a class="skip" href="#main">Skip to content</a>
    <header>
      <a class="brand" href=${address('/')}>Quorbit</a>
      <nav aria-label="Views">
        ${views.filter(entry => entry.title && !(fleet && entry.ofOneHost)).map(entry => html`<a key=${entry.path} href=${address(`/${entry.path}`)} aria-current=${entry === view ? 'page' : undefined}>${entry.title}</a>`)}
      </nav>
      ${sample && html`<strong class="samplechip" title="Nobody runs this shop: quorbit web without --sample shows your own data">Sample data</strong>`}
      ${fleet && html`<${HostChoice} path=${path} parameters=${parameters} />`}
      <span class="zone" title="Times are in this zone">${zone}</span>
      <button class="quiet" onClick=${leave}>Log out</button>
    </header>
    <main id="main" tabindex="-1">
      ${View ? html`<${View} key=${path} id=${id} parameters=${parameters} fleet=${fleet} />` : html`<h1>There is no such page</h1><p><a href="/">To the first one</a></p>`}
    </main>`;
}

function App() {
  const [session, setSession] = useState('asking');
  const [about, setAbout] = useState({});
  const enter = told => {
    if (told.sample) beginWith('24h'); // the sample is of a day
    setAbout(told);
    setSession('open');
  };
  const ask = () => get('session').then(enter, error => setSession(error.status === 401 ? 'none' : error.message));
  useEffect(() => {
    ask();
  }, []);
  useEffect(() => {
    if (session === 'open' && location.pathname === '/login') go('/', { replace: true });
  }, [session]);
  if (session === 'asking') return null;
  if (session === 'none') return html`<${Login} onEntry=${ask} />`;
  if (session !== 'open') return html`<main class="login"><h1>Quorbit</h1><p class="error" role="alert">${session}</p></main>`;
  return html`<${Frame} about=${about} onLeave=${() => setSession('none')} />`;
}

render(html`<${App} />`, document.getElementById('app'));
