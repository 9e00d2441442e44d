<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU">
<context>
    <name>cloudmaterial</name>
    <message>
        <source>CloudMaterial</source>
        <translation>Облачные материалы</translation>
    </message>
    <message>
        <source>Login</source>
        <translation>Войти</translation>
    </message>
    <message>
        <source>Logout</source>
        <translation>Выйти</translation>
    </message>
    <message>
        <source>SelectServer</source>
        <translation>Выбрать сервер</translation>
    </message>
    <message>
        <source>EnterPhoneNum</source>
        <translation>Введите номер телефона</translation>
    </message>
    <message>
        <source>EnterPhoneOrEmailOrName</source>
        <translation>Телефон, e-mail или имя пользователя</translation>
    </message>
    <message>
        <source>EnterPassword</source>
        <translation>Введите пароль</translation>
    </message>
    <message>
        <source>EnterEmail</source>
        <translation>Введите адрес e-mail</translation>
    </message>
    <message>
        <source>EnterCorrectPhoneNum</source>
        <translation>Введите правильный номер телефона</translation>
    </message>
    <message>
        <source>EnterCorrectEmail</source>
        <translation>Введите правильный адрес e-mail</translation>
    </message>
    <message>
        <source>AccountOrPwdError</source>
        <translation>Неверное имя пользователя или пароль</translation>
    </message>
    <message>
        <source>PleaseCheckServiceProxy</source>
        <translation>Примите условия и политику конфиденциальности</translation>
    </message>
    <message>
        <source>PhoneNotExist</source>
        <translation>Этот номер телефона не зарегистрирован</translation>
    </message>
    <message>
        <source>EmailNotExist</source>
        <translation>Этот адрес e-mail не зарегистрирован</translation>
    </message>
    <message>
        <source>PleaseInputAccount</source>
        <translation>Введите учётную запись</translation>
    </message>
    <message>
        <source>PleaseInputPassword</source>
        <translation>Введите пароль</translation>
    </message>
    <message>
        <source>PleaseDragSliderVerify</source>
        <translation>Сначала перетащите ползунок для проверки</translation>
    </message>
    <message>
        <source>LoginTypeLocked</source>
        <translation>Этот способ входа заблокирован, повторите попытку позже</translation>
    </message>
    <message>
        <source>GetVerifyCodeFail</source>
        <translation>Не удалось получить код подтверждения</translation>
    </message>
    <message>
        <source>DownloadFailedDeleteToRetry</source>
        <translation>Загрузка не удалась. Удаление убирает оставшийся файл; затем загрузите снова.</translation>
    </message>
    <message>
        <source>ChooseServerFirst</source>
        <translation>Сначала выберите сервер</translation>
    </message>
    <message>
        <source>VerificationCodeLogin</source>
        <translation>Вход по коду</translation>
    </message>
    <message>
        <source>AccountLogin</source>
        <translation>Вход по учётной записи</translation>
    </message>
    <message>
        <source>Agree</source>
        <translation>Я принимаю</translation>
    </message>
    <message>
        <source>TermsOfService</source>
        <translation>Условия обслуживания</translation>
    </message>
    <message>
        <source>PrivacyPolicy</source>
        <translation>Политику конфиденциальности</translation>
    </message>
    <message>
        <source>And</source>
        <translation>и</translation>
    </message>
    <message>
        <source>NoAccount</source>
        <translation>Нет аккаунта</translation>
    </message>
    <message>
        <source>RegisterNow</source>
        <translation>Регистрация</translation>
    </message>
    <message>
        <source>RememberMe</source>
        <translation>Запомнить меня</translation>
    </message>
    <message>
        <source>ForgotPassword</source>
        <translation>Забыли пароль?</translation>
    </message>
    <message>
        <source>ServerType</source>
        <translation>Тип сервера:</translation>
    </message>
    <message>
        <source>OK</source>
        <translation>OK</translation>
    </message>
    <message>
        <source>Cancel</source>
        <translation>Отмена</translation>
    </message>
    <message>
        <source>GetVerifyCode</source>
        <translation>Получить код</translation>
    </message>
    <message>
        <source>VerifyCodeError</source>
        <translation>Неверный код подтверждения</translation>
    </message>
    <message>
        <source>PhoneNum</source>
        <translation>Телефон: </translation>
    </message>
    <message>
        <source>EmailNum</source>
        <translation>E-mail: </translation>
    </message>
    <message>
        <source>EnterCodeNum</source>
        <translation>Введите код подтверждения</translation>
    </message>
    <message>
        <source>AuthorizationVerify</source>
        <translation>Подтверждение входа</translation>
    </message>
    <message>
        <source>EmailTrustTip</source>
        <translation>Для защиты учётной записи вход с нового устройства нужно подтвердить. Код будет отправлен на этот адрес e-mail.</translation>
    </message>
    <message>
        <source>PhoneTrustTip</source>
        <translation>Для защиты учётной записи вход с нового устройства нужно подтвердить. Код будет отправлен на этот номер телефона.</translation>
    </message>
    <message>
        <source>Name</source>
        <translation>Название</translation>
    </message>
    <message>
        <source>Thumbnail</source>
        <translation>Миниатюра</translation>
    </message>
    <message>
        <source>Status</source>
        <translation>Состояние</translation>
    </message>
    <message>
        <source>Download</source>
        <translation>Загрузка</translation>
    </message>
    <message>
        <source>Type</source>
        <translation>Тип</translation>
    </message>
    <message>
        <source>Resolution</source>
        <translation>Разрешение</translation>
    </message>
    <message>
        <source>Size</source>
        <translation>Размер</translation>
    </message>
    <message>
        <source>PendingApproval</source>
        <translation>На проверке</translation>
    </message>
    <message>
        <source>Reject</source>
        <translation>Отклонено</translation>
    </message>
    <message>
        <source>Picture</source>
        <translation>Изображение</translation>
    </message>
    <message>
        <source>Video</source>
        <translation>Видео</translation>
    </message>
    <message>
        <source>Audio</source>
        <translation>Аудио</translation>
    </message>
    <message>
        <source>Document</source>
        <translation>Документ</translation>
    </message>
    <message>
        <source>SearchMaterial</source>
        <translation>Поиск материалов</translation>
    </message>
    <message>
        <source>Refresh</source>
        <translation>Обновить</translation>
    </message>
    <message>
        <source>Add</source>
        <translation>Добавить</translation>
    </message>
    <message>
        <source>Delete</source>
        <translation>Удалить</translation>
    </message>
    <message>
        <source>SwitchView</source>
        <translation>Сменить вид</translation>
    </message>
    <message>
        <source>NoMaterials</source>
        <translation>В облачной библиотеке пока нет материалов.</translation>
    </message>
    <message>
        <source>NoMatchingMaterials</source>
        <translation>Нет материалов, подходящих под поиск.</translation>
    </message>
    <message>
        <source>AddInCloudConsole</source>
        <translation>Материалы загружаются в веб-консоли облака</translation>
    </message>
    <message>
        <source>DeleteLocalCopies</source>
        <translation>Удалить загруженные копии выбранных материалов (Del)</translation>
    </message>
    <message>
        <source>DeleteLocalCopiesConfirm</source>
        <translation>Удалить загруженные копии материалов (%1)? В облаке они останутся, их можно загрузить снова.</translation>
    </message>
    <message>
        <source>NotLoggedIn</source>
        <translation>Вход не выполнен. Войдите в облако, чтобы увидеть материалы.</translation>
    </message>
    <message>
        <source>CloudUnreachable</source>
        <translation>Облако недоступно. Показаны известные материалы; следующее обновление попробует снова.</translation>
    </message>
    <message>
        <source>NoMaterialsOffline</source>
        <translation>Облако недоступно. Список вернётся при следующем обновлении.</translation>
    </message>
</context>
</TS>
