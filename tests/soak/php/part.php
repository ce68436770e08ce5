<?php
return 'part';
